/*
 * qmtxml_codes.h - the failure codes of qmtxml. They reuse Win32 error values so that a caller
 * printing one gets something recognisable.
 */
#ifndef QMTXML_CODES_H
#define QMTXML_CODES_H

#define XMLLIB_OK 0
/* Success of an enumeration size query: the parent element exists but holds no named entry of
 * that kind (3), or the parent element does not exist at all (4). *size is then 0. */
#define XMLLIB_ENUM_EMPTY 3
#define XMLLIB_ENUM_NO_PARENT 4

#define XMLLIB_E_FILE_NOT_FOUND 2      /* the file does not exist, cannot be read, is not a regular
                                          file or is larger than XMLLIB_MAX_FILE_SIZE */
#define XMLLIB_E_BAD_DATA 13           /* malformed document, or a value that is not a whole number */
#define XMLLIB_E_NOT_READY 21          /* not initialised, or the thing to unload/reload is not loaded */
#define XMLLIB_E_INVALID_PARAMETER 87  /* null argument, bad key path, bad kind, bad mode, bad type */
#define XMLLIB_E_INSUFFICIENT_BUFFER 122 /* *size receives the bytes needed; nothing was written */
#define XMLLIB_E_ALREADY_EXISTS 183    /* the policy or the configuration is already loaded */
#define XMLLIB_E_OVERFLOW 534          /* a whole number outside the signed 32-bit range */
#define XMLLIB_E_NOT_FOUND 1168        /* no element answers the key */
#define XMLLIB_E_ALREADY_INITIALIZED 1247

/* The largest configuration or policy file read, in bytes. */
#define XMLLIB_MAX_FILE_SIZE (16 * 1024 * 1024)
#define XMLLIB_MAX_FILE_SIZE_TEXT "16 MiB"

#endif /* QMTXML_CODES_H */
