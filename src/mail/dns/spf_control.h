// SPF settings: four one-value files under "/etc/zrn-spf".
//
// update_spf writes each setting that is not null, in the order behaviour,
// rules, guess, explanation, as exactly the text given (no line end added;
// an empty text empties the file); a null setting leaves its file alone.
// Returns 0, or -1 after the setting's failure message when a file could not
// be written; the files before it stay written and the later ones are not
// touched. A file that cannot be opened or closed is reported through
// messlog2 with status 1, which ends the process.
#ifndef MAILTEND_MAIL_DNS_SPF_CONTROL_H
#define MAILTEND_MAIL_DNS_SPF_CONTROL_H

int update_spf(const char *behavior, const char *rules, const char *guess, const char *exp);

// Tests point the settings directory elsewhere; null restores "/etc/zrn-spf".
void spf_set_dir_for_testing(const char *dir);

#endif
