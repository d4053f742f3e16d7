// What lies on the wire, byte by byte: both sides of the socket may have been built years apart, in
// two languages, so each record is read here from bytes that were put down by hand.
#include <gtest/gtest.h>
#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <algorithm>
#include <string>
#include <type_traits>

#include "include/tov_wire.h"

namespace {

static_assert(std::is_trivially_copyable_v<tov_msg_head_t> &&
              std::is_trivially_copyable_v<tov_msg_xtach_t> &&
              std::is_trivially_copyable_v<tov_msg_cons_t>);
static_assert(std::is_standard_layout_v<tov_msg_head_t> &&
              std::is_standard_layout_v<tov_msg_xtach_t> &&
              std::is_standard_layout_v<tov_msg_cons_t>);
// Numbers with and without a sign.
static_assert(std::is_unsigned_v<decltype(tov_msg_head_t::type)> &&
              std::is_signed_v<decltype(tov_msg_head_t::len)> &&
              std::is_signed_v<decltype(tov_msg_xtach_t::pid)> &&
              std::is_signed_v<decltype(tov_msg_xtach_t::ppid)> &&
              std::is_signed_v<decltype(tov_msg_xtach_t::vsd_id)> &&
              std::is_unsigned_v<decltype(tov_msg_xtach_t::m_n_counter)> &&
              std::is_unsigned_v<decltype(tov_msg_xtach_t::m_n_cur_counter)> &&
              std::is_unsigned_v<decltype(tov_msg_xtach_t::m_n_notify_time)> &&
              std::is_unsigned_v<decltype(tov_msg_xtach_t::m_n_cur_notify_time)> &&
              std::is_signed_v<decltype(tov_msg_xtach_t::restart_time)> &&
              std::is_signed_v<decltype(tov_msg_cons_t::event)> &&
              std::is_signed_v<decltype(tov_msg_cons_t::pid)>);

struct field_s {
  const char *name;
  size_t offset;
  size_t size;
  size_t described_offset;
  size_t described_size;
};
#define FIELD(record, name, offset, size) \
  { #record "." #name, offsetof(record, name), sizeof(record::name), offset, size }

constexpr field_s head[] = {
    FIELD(tov_msg_head_t, type, 0, 4),
    FIELD(tov_msg_head_t, len, 4, 4),
    FIELD(tov_msg_head_t, pathname, 8, 256),
    FIELD(tov_msg_head_t, pid, 264, 4),
};
constexpr field_s xtach[] = {
    FIELD(tov_msg_xtach_t, pid, 0, 4),
    FIELD(tov_msg_xtach_t, ppid, 4, 4),
    FIELD(tov_msg_xtach_t, vsd_id, 8, 4),
    FIELD(tov_msg_xtach_t, m_n_counter, 12, 4),
    FIELD(tov_msg_xtach_t, m_n_cur_counter, 16, 4),
    FIELD(tov_msg_xtach_t, m_n_notify_time, 20, 4),
    FIELD(tov_msg_xtach_t, m_n_cur_notify_time, 24, 4),
    FIELD(tov_msg_xtach_t, restart_time, 28, 4),
    FIELD(tov_msg_xtach_t, pathname, 32, 256),
    FIELD(tov_msg_xtach_t, grp, 288, 32),
};
constexpr field_s cons[] = {
    FIELD(tov_msg_cons_t, event, 0, 4),
    FIELD(tov_msg_cons_t, pid, 4, 4),
};

// Every field where it is described, without a gap, to the end of the record.
template <size_t N>
constexpr bool as_described(const field_s (&fields)[N], size_t total) {
  size_t end = 0;
  for (const field_s &field : fields) {
    if (field.offset != field.described_offset || field.size != field.described_size) return false;
    if (field.offset != end) return false;
    end += field.size;
  }
  return end == total;
}
static_assert(as_described(head, 268) && sizeof(tov_msg_head_t) == 268);
static_assert(as_described(xtach, 320) && sizeof(tov_msg_xtach_t) == 320);
static_assert(as_described(cons, 8) && sizeof(tov_msg_cons_t) == 8);
static_assert(offsetof(tov_msg_head_t, data) == 268, "the payload follows directly");

static_assert(TOV_NORMAL_EXIT == 0 && TOV_RESTART == 1 && TOV_SHELL_RESTART == 2 &&
              TOV_MSG_ACK == 3 && TOV_RESET == 4 && TOV_MSG_CONS == 5);
static_assert(TOV_CONS_DUMP_ALL == 0 && TOV_UNREG_THREAD_NOTIFY == 1);
static_assert(NORMAL_EXIT == 1 && RESPAWN == 2 && SHELL_RESTART == 3 && IGNORE_EXIT == 4);

// Bytes as a client puts them on the wire: little-endian numbers and padded texts.
class Wire {
 public:
  Wire &number(uint32_t value) {
    for (int shift = 0; shift < 32; shift += 8)
      bytes_.push_back(static_cast<char>(value >> shift & 0xff));
    return *this;
  }
  Wire &text(const std::string &value, size_t size) {
    bytes_ += value;
    bytes_.append(size - value.size(), '\0');
    return *this;
  }
  template <typename Record>
  Record as() const {
    Record record{};
    EXPECT_EQ(bytes_.size(), sizeof record);
    memcpy(&record, bytes_.data(), std::min(bytes_.size(), sizeof record));
    return record;
  }

 private:
  std::string bytes_;
};

TEST(TovLayout, HeadIsReadFromItsBytes) {
#if __BYTE_ORDER__ != __ORDER_LITTLE_ENDIAN__
  GTEST_SKIP() << "the bytes below are those of a little-endian machine";
#endif
  const auto read = Wire()
                        .number(2)
                        .number(0xfffffff6)
                        .text("/etc/cmdmap/x", 256)
                        .number(77)
                        .as<tov_msg_head_t>();
  EXPECT_EQ(read.type, 2u);
  EXPECT_EQ(read.len, -10);
  EXPECT_STREQ(read.pathname, "/etc/cmdmap/x");
  EXPECT_EQ(read.pid, 77);
}

TEST(TovLayout, RegistrationIsReadFromItsBytes) {
#if __BYTE_ORDER__ != __ORDER_LITTLE_ENDIAN__
  GTEST_SKIP() << "the bytes below are those of a little-endian machine";
#endif
  const auto read = Wire()
                        .number(812)
                        .number(0xffffffff)
                        .number(15)
                        .number(5)
                        .number(0x80000004)
                        .number(120)
                        .number(60)
                        .number(0xfffffffe)
                        .text("/usr/sbin/foo -d", 256)
                        .text("test-12", 32)
                        .as<tov_msg_xtach_t>();
  EXPECT_EQ(read.pid, 812);
  EXPECT_EQ(read.ppid, -1);
  EXPECT_EQ(read.vsd_id, 15);
  EXPECT_EQ(read.m_n_counter, 5u);
  EXPECT_EQ(read.m_n_cur_counter, 0x80000004u);
  EXPECT_EQ(read.m_n_notify_time, 120u);
  EXPECT_EQ(read.m_n_cur_notify_time, 60u);
  EXPECT_EQ(read.restart_time, -2);
  EXPECT_STREQ(read.pathname, "/usr/sbin/foo -d");
  EXPECT_STREQ(read.grp, "test-12");
}

TEST(TovLayout, ControlEventIsReadFromItsBytes) {
#if __BYTE_ORDER__ != __ORDER_LITTLE_ENDIAN__
  GTEST_SKIP() << "the bytes below are those of a little-endian machine";
#endif
  const auto read = Wire().number(1).number(0xfffffff8).as<tov_msg_cons_t>();
  EXPECT_EQ(read.event, 1);
  EXPECT_EQ(read.pid, -8);
}

}  // namespace
