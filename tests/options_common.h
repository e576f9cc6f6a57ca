/* SPDX-License-Identifier: Apache-2.0 */
/* What the tests of attributes and options share. */
#ifndef OPTIONS_COMMON_H
#define OPTIONS_COMMON_H

#include "qrnerr.h"
#include "qrnev.h"
#include "support.h"

/* Makes a call that is refused with this message, or succeeds and records nothing when it is empty. */
template <class Call>
void expect_result(const std::string &refusal, Call call)
{
    qrn_seterr(0, "");
    EXPECT_EQ(refusal.empty() ? QRN_OK : QRN_FAILURE, call());
    EXPECT_EQ(refusal.empty() ? 0 : QRN_ERR_INVALID, qrn_errnum());
    EXPECT_EQ(refusal, qrn_errmsg());
}

#endif
