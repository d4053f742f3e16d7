// The messages between a test and the keeper of its device: one text, some descriptors.
//
// Test to keeper: "close". Keeper to test: "ready" (with the console's descriptors, if it is a
// pty), "closed", or a text that says what went wrong. A sequenced-packet socket keeps the messages
// apart and shows the end of the other side.
#ifndef TOV_TEST_KEEPER_CHANNEL_H
#define TOV_TEST_KEEPER_CHANNEL_H

#include <optional>
#include <string>
#include <vector>

#include "tests/support/processes.h"
#include "util/owner.h"

namespace tov_test {

inline constexpr int KEEPER_SOCKET = 3;  // the keeper's end, by number
inline constexpr char KEEPER_READY[] = "ready";
inline constexpr char KEEPER_CLOSE[] = "close";
inline constexpr char KEEPER_CLOSED[] = "closed";

struct Message {
  std::string text;
  std::vector<tov_fd_t> descriptors;  // close-on-exec
};

// Returns false when the other side is gone. At most 4 descriptors.
bool send_message(int socket, const std::string &text, const std::vector<int> &descriptors = {});

// Empty when the other side is gone or nothing came in time (limit below 0: no limit).
std::optional<Message> receive_message(int socket, Millis limit);

}  // namespace tov_test

#endif  // TOV_TEST_KEEPER_CHANNEL_H
