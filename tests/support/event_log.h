// The daemon's event logs: their names, their lines, and a reader for a test of a module.
//
// A log's file is named after its type, the process that opened it and the time; a line is a stamp
// of fixed width, a text, CR LF. (A device's logs are read by Device::event_log, device.h.)
#ifndef TOV_TEST_EVENT_LOG_H
#define TOV_TEST_EVENT_LOG_H

#include <stddef.h>

#include <string>
#include <vector>

namespace tov_test {

inline constexpr char KILL_LOG[] = "tov_kill_process.log";
inline constexpr char RESTART_LOG[] = "tov_restart_process.log";
inline constexpr char RUN_LOG[] = "tov_run_event.log";
inline constexpr char ERROR_LOG[] = "tov_error_event.log";
inline constexpr char ALIVE_LOG[] = "user_register_alive.log";
inline constexpr char REGISTER_LOG[] = "user_register_restart.log";
// How the names of the files begin; a log's place is its type, TOV_LOG_KILL...
inline constexpr const char *EVENT_LOGS[] = {KILL_LOG,  RESTART_LOG, RUN_LOG,
                                             ERROR_LOG, ALIVE_LOG,   REGISTER_LOG};

inline constexpr char EVENT_LOG_DIR[] = "/qxos/vsd_common/tov";
inline constexpr size_t STAMP_LENGTH = 25;  // "2026-11-15 102541 004512 "

// A line's text. A line that is too short to have a stamp is all text.
std::string without_stamp(const std::string &line);

// The whole content of a log's files, one file behind the other; empty as long as there is none.
std::string event_log_content(int type);

// Reads what is new. One thread.
class EventLogReader {
 public:
  EventLogReader();
  // The texts of one log since the last call, in their order.
  std::vector<std::string> news(int type);
  // What was written up to now is no news.
  void forget();

 private:
  std::vector<size_t> seen_;  // characters of each log's content
};

}  // namespace tov_test

#endif  // TOV_TEST_EVENT_LOG_H
