// Courier-IMAP settings: variables NAME=value in the shell-style files
// "imapd", "imapd-ssl", "pop3d" and "pop3d-ssl" under
// "<COURIER_IMAP_ROOT_D>/etc/courier-imap".
//
// Each file is rewritten line by line into a temporary file beside it and
// renamed over it; lines that set no listed variable are copied unchanged.
// A missing file is skipped with a message. Any other failure stops at that
// file: files already done keep their new content and nothing is restarted.
// After the fourth file the servers are restarted, and the result is that of
// the restart.
// The restart is restart_daemon("courier-imap", "restart") of the
// service-script layer.
#ifndef MAILTEND_MAIL_SERVICES_COURIER_CONFIGURE_H
#define MAILTEND_MAIL_SERVICES_COURIER_CONFIGURE_H

#include <cstdint>

enum {
    COURIER_PARAM_SET = 0,
    COURIER_PARAM_REMOVE = 1,
};

// One change; an array of them ends with a record whose name is null. At
// most 31 records are used.
struct courier_param {
    const char *name;
    int action;        // COURIER_PARAM_SET or COURIER_PARAM_REMOVE
    const char *value; // for COURIER_PARAM_SET; null is written as empty
};

int set_courier_params_list(const courier_param *params);
// RELAYCLIENT (empty value), POPAUTH=1 and SHORTNAMES=1 are set when their
// flag is non-zero and removed otherwise; POPLOCK_TIME is set when
// poplock_time > 0, removed when it is 0 and left alone when negative.
int set_courier_params(int relayclient, int popauth, int16_t poplock_time, int shortnames);
int set_courier_shortnames_params(int shortnames);

// Tests put a recorder in place of the restart; null restores the real one.
void courier_set_restart_for_testing(int (*restart)(const char *service, const char *action));

#endif
