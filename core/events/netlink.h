// The netlink reader: drains the kernel's process-event connector into the event ring.
//
// A reader of its own keeps the socket empty while the event handler sleeps or restarts programs.
// Only executions and the ends of whole processes go on; the end of a single thread does not.
// What gets lost: when our socket buffer is full the kernel drops events (ENOBUFS), when the ring
// is full we do; the status sweep finds the exits behind them after one to two minutes.
//
// Thread: "tov_process_netlink" at real-time priority 99, the ring's only producer. It touches no
// registry.
#ifndef TOV_CORE_EVENTS_NETLINK_H
#define TOV_CORE_EVENTS_NETLINK_H

#include <linux/connector.h>
#include <stdint.h>

// Puts one event into the ring and wakes the handler. With no byte free the event is dropped and
// logged; with fewer than a whole record free what fits is stored. Producer thread only.
void tov_send_fifo_cnmsg(uint32_t what, int pid, uint32_t exit_code);

// Filters one connector message whose `len` bytes of data follow it in memory, and queues what is
// of interest. Messages too short for what they claim to be are ignored.
void tov_dispatch_netlink_msg(const struct cn_msg *message);

// Receives one datagram and dispatches its messages. Only the kernel's own (port id 0, group 1)
// are looked at. Returns 0, or -1 with errno set when the socket itself has failed.
int tov_recv_netlink_msg(int sock);

// Thread body. Ends as soon as `quit` is raised, within 5 s when the flag alone is set. Ends with
// result -1 priority, -2 socket, -3 bind, -4 subscription, -5 receive, or 0 when `quit` was set;
// then ends the daemon.
void *tov_process_netlink(void *);

#endif  // TOV_CORE_EVENTS_NETLINK_H
