// What a chaos run tells: its figures, and on failure what is needed to find the cause.
#ifndef TOV_CHAOS_REPORT_H
#define TOV_CHAOS_REPORT_H

#include <string>

#include "tests/chaos/fleet.h"
#include "tests/chaos/run.h"

namespace tov_chaos {

// Deaths, restarts, suspensions, the daemons' use of memory and descriptors, every deed.
void print_summary(const Run &run);

// A program's history, its processes and registration files, and what the daemon said of it.
std::string evidence_of(Run &run, const Program &program);

// Writes the verdict and everything that the device holds to a file. Returns the file's name.
std::string write_failure(const Run &run, const std::string &wrong);

}  // namespace tov_chaos

#endif  // TOV_CHAOS_REPORT_H
