/*
 * sdwlog.cpp - the trace log front end: formats a line, folds runs of identical messages per
 * resource into one summary line, and hands the result to the cluster's log library.
 */
#include "sdw.h"

#include <stdarg.h>
#include <stdio.h>
#include <string.h>

#define SDW_LOG_TEXT_SIZE 128
#define SDW_LOG_NAME_SIZE 32
#define SDW_REPEAT_WINDOW 600000u

typedef struct SDW_LOG_ENTRY {
    char rsc_name[SDW_LOG_NAME_SIZE];
    int32_t level;
    int32_t line;
    char file[SDW_LOG_NAME_SIZE];
    char function[SDW_LOG_NAME_SIZE];
    uint32_t repeat;
    char text[SDW_LOG_TEXT_SIZE];
    struct SDW_LOG_ENTRY *next;
} SDW_LOG_ENTRY;

/* Guarded by the log lock; they live as long as the process, across teardown and re-init. */
static DWORD gsdwLastWriteTick = 0;
static SDW_LOG_ENTRY *gsdwLogFirst = NULL;
static SDW_LOG_ENTRY *gsdwLogLast = NULL;

/* The file name without its directories. Windows paths separate with '\'; the POSIX build's
 * compiler gives '/', which is stripped alike so both builds compare the same base names. */
static const char *SdwBaseName(const char *file)
{
    const char *base = file;
    for (const char *p = file; *p != '\0'; p++) {
        if (*p == '\\' || *p == '/') {
            base = p + 1;
        }
    }
    return base;
}

/* Bounded copy that always terminates; the entry's fields are compared in this cut form. */
static void SdwCopyCut(char *dst, size_t size, const char *src)
{
    snprintf(dst, size, "%s", src != NULL ? src : "");
}

static SDW_LOG_ENTRY *SdwFindLogEntry(const char *rsc_name)
{
    char key[SDW_LOG_NAME_SIZE];
    SdwCopyCut(key, sizeof(key), rsc_name);

    for (SDW_LOG_ENTRY *entry = gsdwLogFirst; entry != NULL; entry = entry->next) {
        if (strcmp(entry->rsc_name, key) == 0) {
            return entry;
        }
    }
    SDW_LOG_ENTRY *entry = (SDW_LOG_ENTRY *)GlobalAlloc(GPTR, sizeof(SDW_LOG_ENTRY));
    if (entry == NULL) {
        return NULL;
    }
    memcpy(entry->rsc_name, key, sizeof(key));
    if (gsdwLogLast == NULL) {
        gsdwLogFirst = entry;
    } else {
        gsdwLogLast->next = entry;
    }
    gsdwLogLast = entry;
    return entry;
}

static void SdwFlushLogEntry(SDW_LOG_ENTRY *entry)
{
    if (entry->repeat == 1) {
        QmtLogWrite(gsdwhLog, entry->level, 0, entry->file, entry->line, entry->function, "%s", entry->text);
    } else if (entry->rsc_name[0] == '\0') {
        QmtLogWrite(gsdwhLog, entry->level, 0, entry->file, entry->line, entry->function,
                    "Last message repeated %d times.", (int)entry->repeat);
    } else {
        QmtLogWrite(gsdwhLog, entry->level, 0, entry->file, entry->line, entry->function,
                    "Last message of %s repeated %d times.", entry->rsc_name, (int)entry->repeat);
    }
    entry->repeat = 0;
}

void SdwWriteLog(const char *rsc_name, int level, const char *file, int line, const char *function,
                 const char *format, ...)
{
    char text[SDW_LOG_TEXT_SIZE];
    int current = 0;
    va_list args;

    /* A log lock that does not come within its wait (a stuck writer) must not stall the caller
     * nor lose the line: the message is then written as it is, without the repeat check, and the
     * suppression list and the last-write tick are left alone, since they belong to the lock. */
    /* After one wait that ran out, later lines do not wait again until somebody obtains the
     * lock: a lock that stays held (a stuck writer, or a release that failed) then costs one
     * wait in all, not one per line, which would stall every pass and worker of the module. */
    static int32_t lock_lost = 0;
    DWORD wait = WaitForSingleObject(gsdwhLogLock, SdwLoad(lock_lost) ? 0 : SDW_LOG_LOCK_WAIT);
    BOOL locked = (wait == WAIT_OBJECT_0 || wait == WAIT_ABANDONED);
    SdwStore(lock_lost, locked ? 0 : 1);

    memset(text, 0, sizeof(text));
    va_start(args, format);
    vsnprintf(text, sizeof(text), format, args);
    va_end(args);

    QmtLogGetSettings(SDW_MODULE_NAME, &current, NULL, 0);

    if (locked && level <= current) {
        SDW_LOG_ENTRY *entry = SdwFindLogEntry(rsc_name);
        if (entry != NULL) {
            char base[SDW_LOG_NAME_SIZE];
            char func[SDW_LOG_NAME_SIZE];
            SdwCopyCut(base, sizeof(base), SdwBaseName(file != NULL ? file : ""));
            SdwCopyCut(func, sizeof(func), function);

            if (strcmp(entry->text, text) == 0 && strcmp(entry->file, base) == 0 &&
                strcmp(entry->function, func) == 0 && entry->line == line && entry->level == level) {
                entry->repeat++;
                DWORD now = GetTickCount();
                if ((DWORD)(now - gsdwLastWriteTick) > SDW_REPEAT_WINDOW) {
                    SdwFlushLogEntry(entry);
                    gsdwLastWriteTick = now;
                }
                ReleaseMutex(gsdwhLogLock);
                return;
            }
            if (entry->repeat != 0) {
                SdwFlushLogEntry(entry);
            }
            entry->repeat = 0;
            gsdwLastWriteTick = GetTickCount();
            memcpy(entry->text, text, sizeof(text));
            memcpy(entry->file, base, sizeof(base));
            memcpy(entry->function, func, sizeof(func));
            entry->level = level;
            entry->line = line;
        }
    }

    QmtLogWrite(gsdwhLog, level, 0, file, line, function, "%s", text);

    if (locked) {
        ReleaseMutex(gsdwhLogLock);
    }
}
