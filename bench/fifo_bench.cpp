// The event ring: a record in and out, on one thread and between two.
#include <benchmark/benchmark.h>
#include <stdint.h>
#include <string.h>

#include <atomic>
#include <thread>

#include "core/events/tov_fifo.h"
#include "include/tov_registry.h"

static void in_and_out(benchmark::State &state) {
  kfifo ring{};
  if (__kfifo_alloc(&ring, TOV_CNMSG_FIFO_BYTES, 1) != 0) {
    state.SkipWithError("no memory");
    return;
  }
  tov_cnmsg_data_t event{TOV_EVENT_EXIT, 1, 9};
  for ([[maybe_unused]] auto _ : state) {
    __kfifo_in(&ring, &event, sizeof event);
    __kfifo_out(&ring, &event, sizeof event);
    benchmark::DoNotOptimize(event);
  }
  state.SetItemsProcessed(state.iterations());
  __kfifo_free(&ring);
}
BENCHMARK(in_and_out);

// Two copies of a record's size and nothing else.
static void floor_of_in_and_out(benchmark::State &state) {
  tov_cnmsg_data_t event{TOV_EVENT_EXIT, 1, 9};
  char buffer[sizeof event];
  for ([[maybe_unused]] auto _ : state) {
    memcpy(buffer, &event, sizeof event);
    benchmark::DoNotOptimize(buffer);
    memcpy(&event, buffer, sizeof event);
    benchmark::DoNotOptimize(event);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(floor_of_in_and_out);

// The measured thread is the producer; the other one takes out as fast as it can.
static void through_two_threads(benchmark::State &state) {
  kfifo ring{};
  if (__kfifo_alloc(&ring, TOV_CNMSG_FIFO_BYTES, 1) != 0) {
    state.SkipWithError("no memory");
    return;
  }
  std::atomic<bool> ending{false};
  std::atomic<int64_t> taken{0};
  std::thread consumer([&] {
    tov_cnmsg_data_t event{};
    int64_t count = 0;
    while (!ending || !kfifo_is_empty(&ring)) {
      if (__kfifo_out(&ring, &event, sizeof event) == sizeof event) count++;
    }
    taken = count;
  });
  const tov_cnmsg_data_t event{TOV_EVENT_EXIT, 1, 9};
  for ([[maybe_unused]] auto _ : state) {
    while (TOV_CNMSG_FIFO_BYTES - kfifo_len(&ring) < sizeof event) {
    }
    __kfifo_in(&ring, &event, sizeof event);
  }
  ending = true;
  consumer.join();
  if (taken != static_cast<int64_t>(state.iterations())) state.SkipWithError("records were lost");
  state.SetItemsProcessed(state.iterations());
  __kfifo_free(&ring);
}
BENCHMARK(through_two_threads)->UseRealTime();
