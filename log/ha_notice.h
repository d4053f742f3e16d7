// Notices of module "HA": what operators read in the system log when programs are restarted.
#ifndef TOV_LOG_HA_NOTICE_H
#define TOV_LOG_HA_NOTICE_H

// Sends one notice of severity 5. On the product line that asks for it the text goes straight to
// the platform, in full; everywhere else the maker's product words are taken out and the text is
// cut to 255 bytes (tov_printk_notice). A failure is ignored: the event log has the same news. Any
// thread; never blocks. Not in a forked child.
void tov_ha_notice(const char *mnemonic, const char *format, ...)
    __attribute__((format(printf, 2, 3)));

#endif  // TOV_LOG_HA_NOTICE_H
