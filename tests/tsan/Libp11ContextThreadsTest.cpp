// Libp11Context::GetInstance from eight threads at once, built with
// ThreadSanitizer: the one lock around the instance must make creation,
// sharing and the last release race-free.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <set>
#include <thread>
#include <vector>

#include "smartcard/Libp11Context.h"

namespace quorvant::shared::x509 {
namespace {

constexpr int k_threads = 8;

// Starts |work| on every thread at the same moment.
template <class Work>
void RunTogether(Work work) {
  std::atomic<int> ready{0};
  std::atomic<bool> go{false};
  std::vector<std::thread> threads;
  for (int i = 0; i < k_threads; ++i)
    threads.emplace_back([&, i] {
      ready.fetch_add(1);
      while (!go.load()) std::this_thread::yield();
      work(i);
    });
  while (ready.load() < k_threads) std::this_thread::yield();
  go.store(true);
  for (std::thread& thread : threads) thread.join();
}

TEST(Libp11ContextThreadsTest, EightThreadsWithNoInstanceYetAllGetTheSameNewOne) {
  for (int round = 0; round < 50; ++round) {
    std::vector<std::shared_ptr<Libp11Context>> taken(k_threads);
    RunTogether([&](int i) { taken[i] = Libp11Context::GetInstance(); });
    const std::set<Libp11Context*> distinct = {taken.begin()->get(), taken.back().get()};
    for (const auto& instance : taken) {
      ASSERT_NE(instance, nullptr);
      EXPECT_EQ(instance, taken[0]);
    }
    EXPECT_EQ(taken[0].use_count(), k_threads);
  }
}

TEST(Libp11ContextThreadsTest, TakingAndDroppingTheLastReferenceFromEightThreadsIsRaceFree) {
  std::atomic<int> empty{0};
  RunTogether([&](int) {
    for (int i = 0; i < 2000; ++i) {
      std::shared_ptr<Libp11Context> instance = Libp11Context::GetInstance();
      // An empty reference is the documented outcome of losing the race
      // with the last release; anything else must be a live instance.
      if (!instance) empty.fetch_add(1);
    }
  });
  // Afterwards nothing holds the context: a fresh call makes a new one.
  std::shared_ptr<Libp11Context> after = Libp11Context::GetInstance();
  ASSERT_NE(after, nullptr);
  EXPECT_EQ(after.use_count(), 1);
  std::printf("[ tsan ] %d of %d calls met the last release and returned empty\n", empty.load(),
              k_threads * 2000);
}

}  // namespace
}  // namespace quorvant::shared::x509
