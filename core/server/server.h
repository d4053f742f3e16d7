// The registration server: the thread that takes clients' requests.
//
// One thread serves all clients, one request at a time, on the socket "/tmp/tov/.tov". A bad
// request costs its sender the connection; only the failures of the thread's own machinery
// (core/server/result.h) end the daemon, which the system then starts again.
#ifndef TOV_CORE_SERVER_SERVER_H
#define TOV_CORE_SERVER_SERVER_H

// Thread body; the parameter is ignored and the result is null. Runs at real-time priority 99 until
// `quit` is raised (within 10 s when the flag alone is set) or its machinery fails; raises `quit`
// itself when it ends. Uses tov_chains and tov_alive_chains through the handlers; makes no request
// of its own. One at a time in a process: the table of clients is static.
void *tov_process_domain(void *arg);

#endif  // TOV_CORE_SERVER_SERVER_H
