// Notices to the platform's system log, with the maker's product words taken out of the text.
//
// Threads: any; the filters work in the caller's buffer and keep no state.
#ifndef TOV_LOG_NOTICE_H
#define TOV_LOG_NOTICE_H

#include <stddef.h>

inline constexpr size_t TOV_FILT_MANU_NUM = 6;

// The words that are removed from notices. Their order decides which one goes first.
extern const char *const g_tov_filt_manu[TOV_FILT_MANU_NUM];

// Sends one notice (syslog severity 5) through the platform.
//   module    "HA"
//   mnemonic  such as "HA_SELF_CHECK"
//   format    the text is cut to 255 bytes before the product words are removed
// The text may hold anything, also "%": it is not taken for a format a second time.
// Returns 0, or -1 when the message formats to nothing; nothing is sent then.
int tov_printk_notice(const char *module, const char *mnemonic, const char *format, ...)
    __attribute__((format(printf, 3, 4)));

// Removes product words from the front of `str`, ignoring case, until none stands there.
void tov_remove_manu_begin(char *str);

// Removes every product word in `str`, ignoring case; the text around a word joins up. At most 255
// bytes behind a removed word are kept.
void tov_remove_manu_include(char *str);

#endif  // TOV_LOG_NOTICE_H
