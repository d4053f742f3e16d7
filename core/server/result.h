// How the server's thread ends: what its closing event line names.
#ifndef TOV_CORE_SERVER_RESULT_H
#define TOV_CORE_SERVER_RESULT_H

inline constexpr char TOV_SERVER_THREAD[] = "tov_process_domain";

// The numbers stand in the event log. The steps of the server return TOV_SERVER_QUIT to go on, or
// what ends the thread, with errno (which diagnostics and owners keep).
enum tov_server_result_e {
  TOV_SERVER_QUIT = 0,     // `quit` was set elsewhere
  TOV_SERVER_SOCKET = -1,  // priority or socket
  TOV_SERVER_BIND = -2,
  TOV_SERVER_LISTEN = -3,
  TOV_SERVER_EPOLL = -4,           // no epoll instance
  TOV_SERVER_WATCH_LISTENER = -5,  // the listening socket could not be registered in it
  TOV_SERVER_WATCH_CLIENT = -6,    // a client could not
  TOV_SERVER_EVENT = -7,           // an event that was no input
  TOV_SERVER_ACCEPT = -8,
  TOV_SERVER_FULL = -9,  // a client more than the table holds
  TOV_SERVER_LOST = -10  // a failing client that is not in the table
};

#endif  // TOV_CORE_SERVER_RESULT_H
