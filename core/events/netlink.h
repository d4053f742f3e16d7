// The netlink reader: drains the kernel's process-event connector into the event ring.
//
// A reader of its own keeps the sockets (core/events/connector) empty while the event handler
// sleeps or restarts programs. Executions and the ends of whole processes go on; how a thread ended
// is only noted (core/run/ends), as every end is before anything else is done with it.
//
// What gets lost, and how it is known: the kernel drops events when our socket's buffer is full
// (ENOBUFS, and it counts them) and when it has no memory (a gap in their numbers, core/events/
// numbers); we drop them when the ring is full. What came before the subscription was never heard,
// and who is a second late does not know what else it has missed. Each of these is told of once
// (core/run/loss), and the event handler looks at every record. Does nothing come for a minute, the
// reader makes an event of its own; does not even that come, it subscribes once more.
//
// Thread: "tov_process_netlink" at real-time priority 99, the ring's only producer. It touches no
// registry, and writes into a log only for a full ring and for a silent kernel.
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
// result -1 priority, -2 socket, -3 bind, -4 subscription (refused, or not answered within 5 s),
// -5 receive (or silence, also after a second subscription), or 0 when `quit` was set; then ends
// the daemon.
void *tov_process_netlink(void *);

#endif  // TOV_CORE_EVENTS_NETLINK_H
