// What start-up prepares outside of the process: directories and the open-file limit.
#ifndef TOV_CORE_SETUP_H
#define TOV_CORE_SETUP_H

// Makes the directory trees that the daemon and the supervised programs rely on, all of them with
// mode 0777 whatever the umask. The /data2 trees only where /data2 exists. Failures are ignored:
// the first that needs a directory will report it.
void tov_make_directories(void);

// Sets the soft limit of open files to 2304 - the server's 2048 clients and the daemon's own - and
// raises the hard limit to it where that is lower. Ends the process with abort() when the limit
// cannot be read or set.
void tov_set_file_limit(void);

#endif  // TOV_CORE_SETUP_H
