// Registry dumps for debugging.
//
// The lines are collected in a memory stream, each ended by a NUL instead of a line feed: command
// lines and paths may hold line feeds of their own, and a record is to stay one message.
//
// Threads: any. Locks: that of the dumped registry, only while the lines are put together.
#include "core/registry/dump.h"

#include <stdio.h>
#include <string.h>

#include <iterator>

#include "core/registry/tov_chain.h"
#include "include/tov_registry.h"
#include "platform/tov_platform.h"
#include "util/owner.h"

enum { TOV_SYSLOG_INFO = 6 };

static constexpr struct {
  tov_dump_kind_e kind;  // the key: equals the row's index
  const char *heading;
} headings[] = {
    {TOV_DUMP_RESTART, "register restart in tov:"},
    {TOV_DUMP_HANG, "register hang in tov:"},
    {TOV_DUMP_DELAY, "delay restart in tov:"},
};
static_assert([] {
  for (int i = 0; i < TOV_DUMP_KIND_NUM; i++) {
    if (headings[i].kind != i) return false;
  }
  return std::size(headings) == TOV_DUMP_KIND_NUM;
}());

namespace {

// The text that a memory stream leaves behind.
struct dump_s {
  tov_block_t<char> text;
  size_t size;
};

}  // namespace

static void write_heading(FILE *out, int kind) {
  if (kind < 0 || kind >= TOV_DUMP_KIND_NUM) return;
  fprintf(out, "%s\n%c", headings[kind].heading, '\0');
}

static void write_records(FILE *out, tov_chains_t *chains) {
  const tov_chains_guard_t hold(*chains);
  fprintf(out, "node num:%d\n%c", chains->node_num, '\0');
  for (const tov_pid_t &record : tov_chain_records(chains)) {
    fprintf(out, "pid: %-6d, vsd: %-2d, regact: %d, pname: %s, %s\n%c", record.pid, record.vsd_id,
            record.action, record.process, record.pathname, '\0');
  }
}

// The lines of a registry, each followed by a NUL.
static dump_s collect_dump(int kind, tov_chains_t *chains) {
  char *text = nullptr;
  size_t size = 0;
  // Closing the stream completes the text. What memory did not suffice for is missing at its end.
  if (const tov_file_t out(open_memstream(&text, &size)); out != nullptr) {
    write_heading(out.get(), kind);
    write_records(out.get(), chains);
  }
  return {tov_block_t<char>(text), size};
}

// Calls `send(line)` for each line of a dump.
template <typename Send>
static void send_lines(const dump_s &dump, Send send) {
  const char *const text = dump.text.get();
  for (size_t at = 0; at < dump.size; at += strlen(text + at) + 1)
    send(text + at);
}

void tov_cli_dump_process_msg_syslog(int kind, tov_chains_t *chains) {
  const dump_s dump = collect_dump(kind, chains);
  send_lines(dump, [](const char *line) { qx_syslog(TOV_SYSLOG_INFO, "%s", line); });
}

void tov_cli_dump_process_msg_console(int kind, tov_chains_t *chains) {
  const dump_s dump = collect_dump(kind, chains);
  send_lines(dump, [](const char *line) { fputs(line, stdout); });
  fflush(stdout);
}
