// Who builds against the daemon's modules finds each function in the header of its module, by that
// header's name alone.
#include <gtest/gtest.h>
#include <tov_chain.h>
#include <tov_core.h>
#include <tov_fifo.h>
#include <tov_msg.h>
#include <tov_pidfile.h>
#include <tov_proc.h>
#include <tov_rpc.h>
#include <tov_signals.h>
#include <tov_sys_alive.h>
#include <tov_utils.h>
#include <tov_vsd.h>

template <typename... Functions>
static int count_found(Functions... functions) {
  return (0 + ... + (functions != nullptr ? 1 : 0));
}

TEST(ModuleHeader, OfTheCoreHasItsThreadsAndWhatTheyCall) {
  EXPECT_EQ(count_found(tov_cnmsg_handle, tov_process_netlink, tov_process_domain, tov_notifer_run,
                        tov_inotify_fork_error, tov_delay_restart, tov_proc_stat_check),
            7);
  EXPECT_EQ(count_found(tov_recv_domain_msg, tov_rsp_domain_msg, tov_dispatch_domain_msg,
                        tov_cn_msg_exec, tov_cn_msg_exit, tov_handle_netlink_exit,
                        tov_rebuild_chains, tov_proc_restart_delay, tov_proc_is_exit),
            9);
}

TEST(ModuleHeader, OfEachOtherModuleHasItsFunctions) {
  EXPECT_EQ(count_found(__tov_find_pid, tov_cnmsg_fifo_alloc, tov_process_restart, tov_read_pidfile,
                        tov_spawn, tov_shell_spawn, debug_time, tov_proc_to_pid, tov_rpc,
                        tov_inner_send_msg, tov_alrm_handler, tov_sys_init_alive_info, safe_sleep,
                        get_vsdid),
            14);
}
