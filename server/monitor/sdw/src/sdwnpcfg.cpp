/*
 * sdwnpcfg.cpp - the disknp network-partition resources, read from the cluster configuration.
 */
#include "sdw.h"

#include <stdio.h>
#include <string.h>

static const char SDW_KEY_DELAY_HEARTBEAT[] = "/root/cluster/delaywarn/heartbeat";

int32_t SdwGetNpConfig(void)
{
    int32_t ret = 0;
    char key[SDW_KEY_SIZE];
    char *names = NULL;
    uint32_t count = 0;
    int size;
    int rc;

    SDWLOG(SDW_NORSC, QMTLOG_TRACE, "Start - ()");

    ret = SdwStartTable(__func__, SDW_KEY_DELAY_HEARTBEAT, "networkpartition", "disknp", &names, &count);
    if (ret != 0) {
        goto exit;
    }

    for (uint32_t i = 0; i < count; i++) {
        SDW_RSC *rsc = &gsdwlpRsc[i];
        /* The keys use the name as enumerated, in full; the record keeps at most 31 characters. */
        const char *slot = names + (size_t)i * XMLLIB_NAME_SLOT;
        int32_t value = 0;

        snprintf(rsc->name, sizeof(rsc->name), "%s", slot);

        memset(key, 0, sizeof(key));
        snprintf(key, sizeof(key), "/root/networkpartition/disknp@%s/timeout", slot);
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
        snprintf(key, sizeof(key), "/root/networkpartition/disknp@%s/interval", slot);
        ret = SdwReadResourceInt(__func__, key, &value);
        if (ret != 0) {
            break;
        }
        if (value < 1) {
            SDWLOG(SDW_NORSC, QMTLOG_WARNING, "Invalid range of polling interval, set default. (%d->%d)", value,
                   SDW_DEFAULT_INTERVAL);
            value = SDW_DEFAULT_INTERVAL;
        }
        rsc->interval = value;

        memset(key, 0, sizeof(key));
        snprintf(key, sizeof(key), "/root/networkpartition/disknp@%s/count", slot);
        ret = SdwReadResourceInt(__func__, key, &value);
        if (ret != 0) {
            break;
        }
        if (value < 0) {
            SDWLOG(SDW_NORSC, QMTLOG_WARNING, "Invalid range of retry count, set default. (%d->%d)", value, 0);
            value = 0;
        }
        rsc->retry = value;

        memset(key, 0, sizeof(key));
        snprintf(key, sizeof(key), "/root/networkpartition/disknp@%s/device", slot);
        ret = SdwReadResourceInt(__func__, key, &value);
        if (ret != 0) {
            break;
        }
        rsc->device = value;

        memset(key, 0, sizeof(key));
        snprintf(key, sizeof(key), "/root/server@%s/device@%d/info", gsdwServerName, rsc->device);
        size = (int)sizeof(rsc->device_info) - 1;
        rc = xmllib_get_value(key, XMLLIB_KIND_TEXT, rsc->device_info, &size);
        rsc->device_info[sizeof(rsc->device_info) - 1] = '\0';
        if (rc != 0) {
            SDWLOG(SDW_NORSC, QMTLOG_ERROR, "xmllib_get_value() failed. (Ret=%#x key=%s Size=%d)", rc, key, size);
            ret = SDW_ERR_SYSTEM;
            break;
        }
        if (rsc->device_info[0] == '\0') {
            SDWLOG(SDW_NORSC, QMTLOG_INFO, "Empty guid. (Name=%s Device=%d)", rsc->name, rsc->device);
        }
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
