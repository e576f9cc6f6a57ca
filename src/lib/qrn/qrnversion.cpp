/* SPDX-License-Identifier: Apache-2.0 */
#include "qrn.h"

#define TEXT_OF(number) #number
#define VERSION(major, minor, patch) TEXT_OF(major) "." TEXT_OF(minor) "." TEXT_OF(patch)

extern "C" const char *qrn_version(void)
{
    return VERSION(QRN_VERSION_MAJOR, QRN_VERSION_MINOR, QRN_VERSION_PATCH);
}
