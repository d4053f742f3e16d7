// The one place that knows both ways of a notice.
//
// Threads: any; no state. Losses: a notice that the platform does not take.
#include "log/ha_notice.h"

#include <stdarg.h>
#include <stdio.h>

#include "include/tov_registry.h"
#include "log/notice.h"
#include "platform/tov_platform.h"

enum {
  NOTICE_LEVEL = 5,
  NOTICE_FLAG = 1,
  TEXT_SIZE = TOV_PROCESS_SIZE + 256,  // a whole command line and the words around it
};

void tov_ha_notice(const char *mnemonic, const char *format, ...) {
  char text[TEXT_SIZE];
  va_list arguments;
  va_start(arguments, format);
  (void)vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);

  // A program may be called "f%n": the text is an argument, never the format.
  if (qxconf_is_dorvik_product()) {
    (void)printk_syslog_ext(NOTICE_LEVEL, "HA", mnemonic, NOTICE_FLAG, "%s", text);
  } else {
    (void)tov_printk_notice("HA", mnemonic, "%s", text);
  }
}
