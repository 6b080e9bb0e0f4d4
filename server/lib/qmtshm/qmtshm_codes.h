/*
 * qmtshm_codes.h - the failure codes of qmtshmcm and qmtshmrm (Win32 error values).
 */
#ifndef QMTSHM_CODES_H
#define QMTSHM_CODES_H

#define QMTSHM_E_NOT_FOUND 2            /* the segment does not exist (readers never create it) */
#define QMTSHM_E_BAD_SEGMENT 13         /* the segment is not ours, too small, or never finished */
#define QMTSHM_E_NOT_ATTACHED 21        /* detach, or a write, without a matching attach */
#define QMTSHM_E_SYSTEM 31              /* shm_open, ftruncate, mmap or a mutex call failed */
#define QMTSHM_E_INVALID_PARAMETER 87   /* null or over-long type/name, negative length */
#define QMTSHM_E_INSUFFICIENT_BUFFER 122 /* shmrm_list: more entries than room; *count = total */
#define QMTSHM_E_BUSY 170               /* a reader could not get a stable copy of an entry */
#define QMTSHM_E_TABLE_FULL 1450        /* every entry of the resource table is taken */

#endif /* QMTSHM_CODES_H */
