// Programs for tests of a module: copies of the victim (support/programs/victim.cpp) under names of
// their own, because processes are visible from every private root and every device at once.
#ifndef TOV_TEST_MODULE_PROGRAM_H
#define TOV_TEST_MODULE_PROGRAM_H

#include <stddef.h>

#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/support/birth.h"
#include "tests/support/files.h"
#include "tests/support/processes.h"
#include "tests/support/text.h"

namespace tov_test {

struct Program {
  std::string name;
  std::string path;

  explicit Program(const std::string &prefix)
      : name(unique_name(prefix)), path("/opt/supervised/" + name) {
    std::filesystem::create_directories("/opt/supervised");
    std::filesystem::copy_file(TOV_VICTIM, path, std::filesystem::copy_options::overwrite_existing);
    clear_path(report());
  }

  std::string report() const { return "/data/victim." + name; }

  // What its instances told about their start.
  std::vector<Birth> births() const { return parse_births(split_lines(read_file(report()))); }

  // Waits for a start; the Nth, counted from 1.
  Birth birth(size_t number = 1) const {
    if (!wait_until([&] { return births().size() >= number; }, PATIENT_MS))
      throw std::runtime_error(name + ": no birth number " + std::to_string(number));
    return births()[number - 1];
  }
};

}  // namespace tov_test

#endif  // TOV_TEST_MODULE_PROGRAM_H
