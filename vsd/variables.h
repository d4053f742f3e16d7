// The environment variables by which the programs of a virtual device find its directories.
//
// Whoever brings a program into a device lays these over what the platform's environment call has
// set: the tool when it creates a device or starts a program there, the daemon when it starts a
// member again. The platform has a list of its own, because a vendor's takes its place.
#ifndef TOV_VSD_VARIABLES_H
#define TOV_VSD_VARIABLES_H

#include "include/tov_ras_comp_config.h"

struct tov_vsd_variable_s {
  const char *name;
  const char *format;  // of its value, takes the device
  bool in_data2;       // only where there is a second data tree
};
using tov_vsd_variable_t = tov_vsd_variable_s;

// In the order in which they are set.
inline constexpr tov_vsd_variable_t tov_vsd_variables[] = {
    {"QX_CFG_DIR", TOV_VSD_QX_CFG_DIR_FMT, false},
    {"QXOS_DIR", TOV_VSD_QXOS_DIR_FMT, false},
    {"DATA_QXOS_DIR", TOV_VSD_DATA_DIR_FMT, false},
    {"DATA_QXOS_DIR2", TOV_VSD_DATA2_DIR_FMT, true},
    {"TMPDIR", TOV_VSD_DIR_FMT, false},
};

#endif  // TOV_VSD_VARIABLES_H
