// The registry: look-up by process id, and a record that comes and goes.
//
// The floor of a look-up is the one memory access that no hash can avoid: reading the record that
// an array of pointers leads to. Records are larger than a page, so with thousands of them that
// access alone misses the caches.
#include <benchmark/benchmark.h>
#include <stdint.h>
#include <stdlib.h>

#include <memory>
#include <random>
#include <vector>

#include "core/registry/tov_chain.h"
#include "include/tov_registry.h"

enum {
  FIRST_PID = 1000,
  PID_STEP = 3,  // between two registered processes others start
  LOOK_UPS = 4096,
  SEED = 1,
};

namespace {

// A registry of `count` records, and process ids of it in random order.
class Filled {
 public:
  explicit Filled(int64_t count) {
    tov_init_chains(&chains);
    const tov_chains_guard_t guard(chains);
    for (int i = 0; i < count; i++) {
      tov_pid_t *record = tov_chain_new_record();
      record->pid = FIRST_PID + PID_STEP * i;
      tov_chain_insert(&chains, record);
      records.push_back(record);
    }
    std::mt19937 random(SEED);
    std::uniform_int_distribution<size_t> any(0, records.size() - 1);
    for (int i = 0; i < LOOK_UPS; i++) {
      indexes.push_back(any(random));
      pids.push_back(records[indexes.back()]->pid);
    }
  }
  Filled(const Filled &) = delete;
  Filled &operator=(const Filled &) = delete;
  ~Filled() { tov_destroy_chains(&chains); }

  tov_chains_t chains{};
  std::vector<tov_pid_t *> records;
  std::vector<size_t> indexes;
  std::vector<pid_t> pids;
};

}  // namespace

// Look-ups that do not wait for each other.
static void look_up(benchmark::State &state) {
  Filled filled(state.range(0));
  const tov_chains_guard_t guard(filled.chains);
  size_t i = 0;
  for ([[maybe_unused]] auto _ : state)
    benchmark::DoNotOptimize(__tov_find_pid(&filled.chains, filled.pids[i++ % LOOK_UPS]));
}
BENCHMARK(look_up)->Arg(1)->Arg(256)->Arg(4096);

// One after the other: which record comes next is known only from the one before. (`drift` is
// always 0; the compiler and the processor cannot know it.)
static void look_up_in_turn(benchmark::State &state) {
  Filled filled(state.range(0));
  const tov_chains_guard_t guard(filled.chains);
  size_t i = 0;
  pid_t drift = 0;
  for ([[maybe_unused]] auto _ : state) {
    const pid_t wanted = filled.pids[i++ % LOOK_UPS];
    drift = __tov_find_pid(&filled.chains, wanted + drift)->pid - wanted;
    benchmark::DoNotOptimize(drift);
  }
}
BENCHMARK(look_up_in_turn)->Arg(1)->Arg(256)->Arg(4096);

static void floor_of_look_up_in_turn(benchmark::State &state) {
  Filled filled(state.range(0));
  size_t i = 0;
  pid_t drift = 0;
  for ([[maybe_unused]] auto _ : state) {
    const size_t index = filled.indexes[i % LOOK_UPS];
    const pid_t wanted = filled.pids[i++ % LOOK_UPS];
    drift = filled.records[index + static_cast<size_t>(drift)]->pid - wanted;
    benchmark::DoNotOptimize(drift);
  }
}
BENCHMARK(floor_of_look_up_in_turn)->Arg(1)->Arg(256)->Arg(4096);

// As a caller pays for it.
static void look_up_with_lock(benchmark::State &state) {
  Filled filled(state.range(0));
  size_t i = 0;
  for ([[maybe_unused]] auto _ : state) {
    const tov_chains_guard_t guard(filled.chains);
    benchmark::DoNotOptimize(__tov_find_pid(&filled.chains, filled.pids[i++ % LOOK_UPS]));
  }
}
BENCHMARK(look_up_with_lock)->Arg(1)->Arg(256)->Arg(4096);

// Nearly every process that ends on the machine: it is not registered.
static void look_up_of_a_stranger(benchmark::State &state) {
  Filled filled(state.range(0));
  const tov_chains_guard_t guard(filled.chains);
  size_t i = 0;
  for ([[maybe_unused]] auto _ : state)
    benchmark::DoNotOptimize(__tov_find_pid(&filled.chains, filled.pids[i++ % LOOK_UPS] + 1));
}
BENCHMARK(look_up_of_a_stranger)->Arg(1)->Arg(256)->Arg(4096);

static void insert_and_remove(benchmark::State &state) {
  Filled filled(state.range(0));
  const tov_chains_guard_t guard(filled.chains);
  pid_t pid = FIRST_PID + 1;
  for ([[maybe_unused]] auto _ : state) {
    tov_pid_t *record = tov_chain_new_record();
    record->pid = pid;
    tov_chain_insert(&filled.chains, record);
    tov_chain_remove(&filled.chains, record);
    pid += PID_STEP;
  }
}
BENCHMARK(insert_and_remove)->Arg(1)->Arg(256)->Arg(4096);

// The zeroed block of memory that a record is.
static void floor_of_insert(benchmark::State &state) {
  for ([[maybe_unused]] auto _ : state) {
    const std::unique_ptr<void, void (*)(void *)> block(calloc(1, sizeof(tov_pid_t)), free);
    benchmark::DoNotOptimize(block.get());
  }
}
BENCHMARK(floor_of_insert);
