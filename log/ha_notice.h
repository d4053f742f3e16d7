// Notices of module "HA": what operators read in the system log when programs are restarted.
#ifndef TOV_LOG_HA_NOTICE_H
#define TOV_LOG_HA_NOTICE_H

// Sends one notice of severity 5. On the product line that asks for it the text goes straight to
// the platform; everywhere else the maker's prefixes are filtered out first (tov_printk_notice).
// Any thread; never blocks. Not in a forked child.
void tov_ha_notice(const char *mnemonic, const char *format, ...)
    __attribute__((format(printf, 2, 3)));

#endif  // TOV_LOG_HA_NOTICE_H
