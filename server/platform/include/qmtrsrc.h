/*
 * qmtrsrc.h - the version resource of a POSIX executable.
 *
 * An executable that must show a version (the host) puts QMT_VERSION_RESOURCE(...) once in one
 * of its source files, at file scope. The macro places a small resource directory, holding one
 * resource of type RT_VERSION (16), name 1, language 0, into the ELF section ".qmtrsrc". The
 * resource is a VS_VERSIONINFO block in the Windows binary layout, so FindResourceA / LoadResource
 * / LockResource give the same bytes as on Windows and the VS_FIXEDFILEINFO sits at offset 40.
 */
#ifndef QMTRSRC_H
#define QMTRSRC_H

#include <stdint.h>

#define QMT_RSRC_SECTION ".qmtrsrc"
#define QMT_RSRC_MAGIC "QMTRSRC1"

/* One directory entry: where the resource's bytes are, counted from the start of the section. */
struct qmt_rsrc_entry {
    uint16_t type;
    uint16_t name;
    uint16_t language;
    uint16_t reserved;
    uint32_t offset;
    uint32_t size;
};

/* VS_VERSIONINFO without children: header, L"VS_VERSION_INFO", padding, VS_FIXEDFILEINFO. */
struct qmt_rsrc_versioninfo {
    uint16_t wLength;
    uint16_t wValueLength;
    uint16_t wType;
    uint16_t szKey[16];
    uint16_t padding1;
    uint32_t fixed[13];
};

struct qmt_rsrc_image {
    char magic[8];
    uint32_t count;
    uint32_t reserved;
    struct qmt_rsrc_entry entries[1];
    struct qmt_rsrc_versioninfo version;
};

#define QMT_RSRC_VERSION_OFFSET 32u
#define QMT_RSRC_VERSION_SIZE 92u
#define QMT_RSRC_FIXED_SIZE 52u

#ifdef __cplusplus
static_assert(sizeof(qmt_rsrc_versioninfo) == QMT_RSRC_VERSION_SIZE, "VS_VERSIONINFO layout");
static_assert(__builtin_offsetof(qmt_rsrc_versioninfo, fixed) == 40, "VS_FIXEDFILEINFO at offset 40");
static_assert(__builtin_offsetof(qmt_rsrc_image, version) == QMT_RSRC_VERSION_OFFSET, "directory size");
#define QMT_RSRC_LINKAGE_ extern "C"
#else
#define QMT_RSRC_LINKAGE_
#endif

#define QMT_RSRC_HILO_(hi, lo) ((((uint32_t)(hi) & 0xffffu) << 16) | ((uint32_t)(lo) & 0xffffu))

/* File version fM.fm.fb.fr and product version pM.pm.pb.pr, each part 16 bits. */
#define QMT_VERSION_RESOURCE(fM, fm, fb, fr, pM, pm, pb, pr)                                       \
    QMT_RSRC_LINKAGE_ __attribute__((section(QMT_RSRC_SECTION), used, aligned(8)))                 \
    const struct qmt_rsrc_image qmt_version_resource = {                                           \
        {'Q', 'M', 'T', 'R', 'S', 'R', 'C', '1'},                                                  \
        1u,                                                                                        \
        0u,                                                                                        \
        {{16u, 1u, 0u, 0u, QMT_RSRC_VERSION_OFFSET, QMT_RSRC_VERSION_SIZE}},                       \
        {QMT_RSRC_VERSION_SIZE,                                                                    \
         QMT_RSRC_FIXED_SIZE,                                                                      \
         0u,                                                                                       \
         {'V', 'S', '_', 'V', 'E', 'R', 'S', 'I', 'O', 'N', '_', 'I', 'N', 'F', 'O', 0},           \
         0u,                                                                                       \
         {0xFEEF04BDu, 0x00010000u, QMT_RSRC_HILO_(fM, fm), QMT_RSRC_HILO_(fb, fr),                \
          QMT_RSRC_HILO_(pM, pm), QMT_RSRC_HILO_(pb, pr), 0x3Fu, 0u, 0x00040004u, 1u, 0u, 0u,     \
          0u}}}

#endif /* QMTRSRC_H */
