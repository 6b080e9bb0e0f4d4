// qmtrm_version.cpp - the executable's version resource; the plug-in prints it as its banner.
#include "qmtrsrc.h"

QMT_VERSION_RESOURCE(QMTRM_VERSION_MAJOR, QMTRM_VERSION_MINOR, QMTRM_VERSION_PATCH, QMTRM_VERSION_BUILD,
                     QMTRM_VERSION_MAJOR, QMTRM_VERSION_MINOR, QMTRM_VERSION_PATCH, QMTRM_VERSION_BUILD);
