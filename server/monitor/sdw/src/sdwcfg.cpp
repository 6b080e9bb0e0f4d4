/*
 * sdwcfg.cpp - policy values and the sdw monitor resources, read from the cluster configuration.
 */
#include "sdw.h"

#include <stdio.h>
#include <string.h>

#define SDW_LOG_SIZE_MIN 1000000u
#define SDW_LOG_SIZE_MAX 100000000u
#define SDW_DELAY_RATIO_MAX 100u

static const char SDW_KEY_TYPE[] = "/root/monitor/sdw/type";
static const char SDW_KEY_LOG_LEVEL[] = "/root/monitor/sdw/log/level";
static const char SDW_KEY_LOG_SIZE[] = "/root/monitor/sdw/log/size";
static const char SDW_KEY_DELAY_MONITOR[] = "/root/cluster/delaywarn/monitor";

int32_t SdwGetPolicy(void)
{
    int32_t ret = 0;
    int32_t value = 0;
    int size = 0;
    int rc;

    SDWLOG(SDW_NORSC, QMTLOG_TRACE, "Start - ()");

    size = (int)sizeof(gsdwMonitorType);
    rc = xmllib_get_value(SDW_KEY_TYPE, XMLLIB_KIND_TEXT, gsdwMonitorType, &size);
    if (rc != 0) {
        SDWLOG(SDW_NORSC, QMTLOG_ERROR, "xmllib_get_value() failed. (Ret=%#x key=%s)", rc, SDW_KEY_TYPE);
        ret = SDW_ERR_SYSTEM;
        goto exit;
    }
    gsdwMonitorType[sizeof(gsdwMonitorType) - 1] = '\0';

    size = (int)sizeof(value);
    rc = xmllib_get_value(SDW_KEY_LOG_LEVEL, XMLLIB_KIND_INT, &value, &size);
    if (rc != 0) {
        SDWLOG(SDW_NORSC, QMTLOG_ERROR, "xmllib_get_value() failed. (Ret=%#x key=%s)", rc, SDW_KEY_LOG_LEVEL);
        ret = SDW_ERR_SYSTEM;
        goto exit;
    }
    gsdwPolicyLogLevel = value;

    size = (int)sizeof(value);
    rc = xmllib_get_value(SDW_KEY_LOG_SIZE, XMLLIB_KIND_INT, &value, &size);
    if (rc != 0) {
        SDWLOG(SDW_NORSC, QMTLOG_ERROR, "xmllib_get_value() failed. (Ret=%#x key=%s)", rc, SDW_KEY_LOG_SIZE);
        ret = SDW_ERR_SYSTEM;
        goto exit;
    }
    if ((uint32_t)value < SDW_LOG_SIZE_MIN || (uint32_t)value > SDW_LOG_SIZE_MAX) {
        SDWLOG(SDW_NORSC, QMTLOG_WARNING, "Invalid range of log size, set default. (%d->%d)", value,
               SDW_DEFAULT_LOG_SIZE);
        value = SDW_DEFAULT_LOG_SIZE;
    }
    gsdwPolicyLogSize = value;

exit:
    SDWLOG(SDW_NORSC, QMTLOG_TRACE, "End - (Ret=%d)", ret);
    return ret;
}

/* Reads the delay ratio of one kind ("monitor" or "heartbeat"); 0 or 99. */
static int32_t SdwGetDelayRatio(const char *function, const char *key)
{
    int32_t value = 0;
    int size = (int)sizeof(value);
    int rc = xmllib_get_value(key, XMLLIB_KIND_INT, &value, &size);
    if (rc != 0) {
        SDWLOGAS(function, SDW_NORSC, QMTLOG_ERROR, "xmllib_get_value() failed. (Ret=%#x key=%s)", rc, key);
        return SDW_ERR_SYSTEM;
    }
    if ((uint32_t)value > SDW_DELAY_RATIO_MAX) {
        SDWLOGAS(function, SDW_NORSC, QMTLOG_WARNING, "Invalid range of delay ratio, set default. (%d->%d)", value,
               SDW_DEFAULT_DELAY_RATIO);
        value = SDW_DEFAULT_DELAY_RATIO;
    }
    gsdwDelayRatio = (uint32_t)value;
    return 0;
}

/* Frees the resource table; the pointer and the count are emptied in the same step. */
void SdwFreeTable(void)
{
    SDW_RSC *table = gsdwlpRsc;
    gsdwRscCount = 0;
    gsdwlpRsc = NULL;
    if (table != NULL) {
        GlobalFree(table);
    }
}

static int32_t SdwEnumNames(const char *function, const char *key, char **names, uint32_t *count)
{
    int size = 0;
    int rc;

    *names = NULL;
    *count = 0;
    rc = xmllib_enum_value(key, NULL, &size);
    if (rc != 0 && rc != 3 && rc != 4) {
        SDWLOGAS(function, SDW_NORSC, QMTLOG_ERROR, "xmllib_enum_value() failed. (Ret=%#x key=%s)", rc, key);
        return SDW_ERR_SYSTEM;
    }
    if (size <= 0 || size / XMLLIB_NAME_SLOT == 0) {
        SDWLOGAS(function, SDW_NORSC, QMTLOG_WARNING, "Unregistered monitor. (Size=%d)", size);
        return SDW_ERR_SYSTEM;
    }
    char *buffer = (char *)GlobalAlloc(GPTR, (SIZE_T)size);
    if (buffer == NULL) {
        SDWLOGAS(function, SDW_NORSC, QMTLOG_ERROR, "MEMALLOC() failed. (Size=%d Err=%d)", size, (int)GetLastError());
        return SDW_ERR_MEMORY;
    }
    /* The number of resources is that of the first answer: whatever the second call says about
     * its size, only the buffer allocated for the first is read. */
    int fetched = size;
    rc = xmllib_enum_value(key, buffer, &fetched);
    if (rc != 0) {
        SDWLOGAS(function, SDW_NORSC, QMTLOG_ERROR, "xmllib_enum_value() failed. (Ret=%#x key=%s)", rc, key);
        GlobalFree(buffer);
        return SDW_ERR_SYSTEM;
    }
    /* A slot's name is cut at the end of its slot whatever the library left there. */
    uint32_t slots = (uint32_t)size / XMLLIB_NAME_SLOT;
    for (uint32_t i = 0; i < slots; i++) {
        buffer[(size_t)i * XMLLIB_NAME_SLOT + XMLLIB_NAME_SLOT - 1] = '\0';
    }
    *names = buffer;
    *count = slots;
    return 0;
}

static int32_t SdwAllocTable(const char *function, uint32_t count)
{
    SDW_RSC *table = (SDW_RSC *)GlobalAlloc(GPTR, (SIZE_T)count * sizeof(SDW_RSC));
    if (table == NULL) {
        SDWLOGAS(function, SDW_NORSC, QMTLOG_ERROR, "MEMALLOC() failed. (Err=%d)", (int)GetLastError());
        return SDW_ERR_MEMORY;
    }
    gsdwlpRsc = table;
    gsdwRscCount = count;
    return 0;
}

int32_t SdwStartTable(const char *function, const char *delay_key, const char *group, const char *kind, char **names,
                      uint32_t *count)
{
    char key[SDW_KEY_SIZE];
    int32_t ret;

    *names = NULL;
    *count = 0;
    ret = SdwGetPolicy();
    if (ret != 0) {
        SDWLOGAS(function, SDW_NORSC, QMTLOG_ERROR, "SdwGetPolicy() failed. (Ret=%#x)", ret);
        return ret;
    }
    ret = SdwGetDelayRatio(function, delay_key);
    if (ret != 0) {
        return ret;
    }
    /* The policy values and the delay ratio are refreshed all the same. */
    if (gsdwlpRsc != NULL) {
        SDWLOGAS(function, SDW_NORSC, QMTLOG_WARNING, "resource has already created. (Rsc=%#x)", SDW_HDL(gsdwlpRsc));
        return 0;
    }

    memset(key, 0, sizeof(key));
    snprintf(key, sizeof(key), "/root/%s/%s", group, kind);
    ret = SdwEnumNames(function, key, names, count);
    if (ret != 0) {
        return ret;
    }
    ret = SdwAllocTable(function, *count);
    if (ret != 0) {
        *count = 0;
    }
    return ret;
}

int32_t SdwReadResourceInt(const char *function, const char *key, int32_t *value)
{
    int size = (int)sizeof(*value);
    int rc = xmllib_get_value(key, XMLLIB_KIND_INT, value, &size);
    if (rc != 0) {
        SDWLOGAS(function, SDW_NORSC, QMTLOG_ERROR, "xmllib_get_value() failed. (Ret=%#x key=%s Size=%d)", rc, key, size);
        return SDW_ERR_SYSTEM;
    }
    return 0;
}

int32_t SdwGetConfig(void)
{
    int32_t ret = 0;
    char key[SDW_KEY_SIZE];
    char *names = NULL;
    uint32_t count = 0;
    int size;
    int rc;

    SDWLOG(SDW_NORSC, QMTLOG_TRACE, "Start - ()");

    ret = SdwStartTable(__func__, SDW_KEY_DELAY_MONITOR, "monitor", "sdw", &names, &count);
    if (ret != 0) {
        goto exit;
    }

    for (uint32_t i = 0; i < count; i++) {
        SDW_RSC *rsc = &gsdwlpRsc[i];
        const char *slot = names + (size_t)i * XMLLIB_NAME_SLOT;
        int32_t value = 0;

        snprintf(rsc->name, sizeof(rsc->name), "%s", slot);

        memset(key, 0, sizeof(key));
        snprintf(key, sizeof(key), "/root/monitor/sdw@%s/polling/timeout", slot);
        ret = SdwReadResourceInt(__func__, key, &value);
        if (ret != 0) {
            break;
        }
        if (value < 1) {
            SDWLOG(SDW_NORSC, QMTLOG_WARNING, "Invalid range of polling timeout, set default. (%d->%d)", value,
                   SDW_DEFAULT_TIMEOUT);
            value = SDW_DEFAULT_TIMEOUT;
        }
        rsc->timeout = value;

        memset(key, 0, sizeof(key));
        snprintf(key, sizeof(key), "/root/monitor/sdw@%s/parameters/object", slot);
        size = (int)sizeof(rsc->object);
        rc = xmllib_get_value(key, XMLLIB_KIND_TEXT, rsc->object, &size);
        rsc->object[sizeof(rsc->object) - 1] = '\0';
        if (rc != 0) {
            SDWLOG(SDW_NORSC, QMTLOG_ERROR, "xmllib_get_value() failed. (Ret=%#x key=%s Size=%d)", rc, key, size);
            ret = SDW_ERR_SYSTEM;
            break;
        }
        if (rsc->object[0] == '\0') {
            SDWLOG(SDW_NORSC, QMTLOG_ERROR, "No object. (Val=%s)", rsc->object);
            ret = SDW_ERR_SYSTEM;
            break;
        }

        /* A monitor whose disk has no volume on this server is kept, with an empty GUID. */
        memset(key, 0, sizeof(key));
        snprintf(key, sizeof(key), "/root/resource/sd@%s/server@%s/parameters/volumeguid", rsc->object,
                 gsdwServerName);
        size = (int)sizeof(rsc->volume_guid) - 1;
        rc = xmllib_get_value(key, XMLLIB_KIND_TEXT, rsc->volume_guid, &size);
        if (rc != 0) {
            memset(rsc->volume_guid, 0, sizeof(rsc->volume_guid));
            SDWLOG(SDW_NORSC, QMTLOG_ERROR, "xmllib_get_value() failed. (Ret=%#x key=%s Size=%d)", rc, key, size);
        }
        rsc->volume_guid[sizeof(rsc->volume_guid) - 1] = '\0';
    }
    if (ret != 0) {
        SdwFreeTable();
    }

exit:
    if (names != NULL) {
        GlobalFree(names);
    }
    SDWLOG(SDW_NORSC, QMTLOG_TRACE, "End - (Ret=%d)", ret);
    return ret;
}

int32_t SdwReloadConfig(SDW_RSC *rsc)
{
    int32_t ret = 0;
    char key[SDW_KEY_SIZE];
    int32_t value = 0;
    int size = (int)sizeof(value);
    int rc;

    SDWLOG(SDW_NORSC, QMTLOG_TRACE, "Start - (Name=%s)", rsc->name);

    rc = xmllib_reload_config(1);
    if (rc != 0) {
        SDWLOG(rsc->name, QMTLOG_WARNING, "xmllib_reload_config() failed. (Err=%#x)", rc);
        goto exit;
    }
    memset(key, 0, sizeof(key));
    snprintf(key, sizeof(key), "/root/monitor/sdw@%s/polling/timeout", rsc->name);
    rc = xmllib_get_value(key, XMLLIB_KIND_INT, &value, &size);
    if (rc != 0) {
        SDWLOG(rsc->name, QMTLOG_WARNING, "xmllib_get_value() failed. (Ret=%#x key=%s)", rc, key);
        goto exit;
    }
    if (value < 1) {
        SDWLOG(rsc->name, QMTLOG_WARNING, "Invalid range of polling timeout, set default. (%d->%d)", value,
               SDW_DEFAULT_TIMEOUT);
        value = SDW_DEFAULT_TIMEOUT;
    }
    SdwStore(rsc->timeout, value);
    ret = 1;

exit:
    SDWLOG(SDW_NORSC, QMTLOG_TRACE, "End - (Ret=%d)", ret);
    return ret;
}

void SdwReleaseConfigStore(const char *function, const char *const *policies, uint32_t count)
{
    int rc = xmllib_unload_config();
    if (rc != 0) {
        SDWLOGAS(function, SDW_NORSC, QMTLOG_ERROR, "xmllib_unload_config() failed. (Ret=%#x)", rc);
    }
    /* In the reverse order of their loading. */
    for (uint32_t i = count; i > 0; i--) {
        rc = xmllib_unload_policy(policies[i - 1]);
        if (rc != 0) {
            SDWLOGAS(function, SDW_NORSC, QMTLOG_ERROR, "xmllib_unload_policy() failed. (Ret=%#x Type=%s)", rc, policies[i - 1]);
        }
    }
    rc = xmllib_term();
    if (rc != 0) {
        SDWLOGAS(function, SDW_NORSC, QMTLOG_ERROR, "xmllib_term() failed. (Ret=%#x)", rc);
    }
}
