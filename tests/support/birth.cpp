// Reads the report that a victim program writes about its start.
#include "tests/support/birth.h"

#include <stdint.h>

#include <cstdlib>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace tov_test {

using Fields = std::map<std::string, std::string>;

static const std::string ENV_PREFIX = "env.";

static Fields split(const std::string &line) {
  Fields fields;
  std::istringstream items(line);
  for (std::string item; std::getline(items, item, '\t');) {
    const size_t equals = item.find('=');
    if (equals != std::string::npos) fields[item.substr(0, equals)] = item.substr(equals + 1);
  }
  return fields;
}

static int64_t number(const Fields &fields, const std::string &key, int base = 10) {
  const auto found = fields.find(key);
  return found == fields.end() ? 0 : strtoll(found->second.c_str(), nullptr, base);
}

static uint64_t mask(const Fields &fields, const std::string &key) {
  const auto found = fields.find(key);
  return found == fields.end() ? 0 : strtoull(found->second.c_str(), nullptr, 16);
}

static std::string text(const Fields &fields, const std::string &key) {
  const auto found = fields.find(key);
  return found == fields.end() ? std::string() : found->second;
}

static std::map<int, std::string> parse_fds(const std::string &list) {
  std::map<int, std::string> fds;
  std::istringstream items(list);
  for (std::string item; std::getline(items, item, '|');) {
    const size_t colon = item.find(':');
    if (colon != std::string::npos) fds[atoi(item.c_str())] = item.substr(colon + 1);
  }
  return fds;
}

std::optional<Birth> parse_birth(const std::string &line) {
  // The last item proves that the line is whole.
  if (!line.starts_with("birth\t") || !line.ends_with("\tend=1")) return std::nullopt;
  const Fields fields = split(line);
  Birth birth;
  birth.pid = static_cast<pid_t>(number(fields, "pid"));
  birth.ppid = static_cast<pid_t>(number(fields, "ppid"));
  birth.sid = static_cast<pid_t>(number(fields, "sid"));
  birth.pgrp = static_cast<pid_t>(number(fields, "pgrp"));
  birth.main_ns = number(fields, "main_ns");
  birth.argv = text(fields, "argv");
  birth.cwd = text(fields, "cwd");
  birth.fds = parse_fds(text(fields, "fds"));
  birth.blocked = mask(fields, "SigBlk");
  birth.ignored = mask(fields, "SigIgn");
  birth.caught = mask(fields, "SigCgt");
  birth.policy = static_cast<int>(number(fields, "policy"));
  birth.priority = static_cast<int>(number(fields, "priority"));
  birth.nice = static_cast<int>(number(fields, "nice"));
  birth.oom_score_adj = static_cast<int>(number(fields, "oom_score_adj"));
  birth.groups = text(fields, "groups");
  birth.nofile = number(fields, "nofile");
  for (const auto &[key, value] : fields)
    if (key.starts_with(ENV_PREFIX)) birth.env[key.substr(ENV_PREFIX.size())] = value;
  return birth;
}

std::vector<Birth> parse_births(const std::vector<std::string> &lines) {
  std::vector<Birth> all;
  for (const std::string &line : lines)
    if (auto birth = parse_birth(line)) all.push_back(std::move(*birth));
  return all;
}

}  // namespace tov_test
