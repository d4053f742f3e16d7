// Small number files: settings that are read where they are used, every time.
//
// Operators change these files on a running device and expect the next decision to follow, so
// nothing here is cached.
#ifndef TOV_CORE_RUN_SETTINGS_H
#define TOV_CORE_RUN_SETTINGS_H

// Reads two decimal integers separated by white space from the first 255 bytes of a file.
// Returns 0, or -1 when the file cannot be read or does not begin with two numbers; what was
// converted before that may have been stored.
int tov_get_config_value(const char *path, int *first, int *second);

// The same with one number.
int tov_get_file_config(const char *path, int *value);

#endif  // TOV_CORE_RUN_SETTINGS_H
