// Runtime primitives: list and cursor, mutex ownership, semaphore and
// condition waits, clocks, text helpers, forwarders, loopback pipe, print.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "runtime/os.h"
#include "support/fixtures.h"

namespace {

using Clock = std::chrono::steady_clock;

long long MsSince(Clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

void* V(intptr_t n) { return reinterpret_cast<void*>(n); }

// Values of the list from head to tail, walking the nodes themselves.
std::vector<intptr_t> Values(const os_list* list) {
    std::vector<intptr_t> out;
    for (os_list_node* n = list->head; n; n = n->next) out.push_back(reinterpret_cast<intptr_t>(n->value));
    return out;
}

struct ListOwner {
    os_list* list = os_list_create();
    ~ListOwner() { os_list_destroy(list, nullptr); }
};

// A list holding 1..n.
void Fill(os_list* list, int n) {
    for (int i = 1; i <= n; ++i) ASSERT_EQ(os_list_insert(list, V(i), -1), i);
}

// ---- list ------------------------------------------------------------------

TEST(List_Insert, PositionsAndClamping) {
    struct Case {
        int pos;
        std::vector<intptr_t> expect;
    };
    const Case cases[] = {
        {0, {9, 1, 2, 3}}, {1, {1, 9, 2, 3}}, {2, {1, 2, 9, 3}},
        {3, {1, 2, 3, 9}}, {7, {1, 2, 3, 9}}, {-1, {1, 2, 3, 9}},
    };
    for (const Case& c : cases) {
        ListOwner l;
        Fill(l.list, 3);
        EXPECT_EQ(os_list_insert(l.list, V(9), c.pos), 4) << "pos " << c.pos;
        EXPECT_EQ(Values(l.list), c.expect) << "pos " << c.pos;
        EXPECT_EQ(os_list_count(l.list), 4);
    }
    for (int pos : {-1, 0, 1, 5}) {
        ListOwner l;
        EXPECT_EQ(os_list_insert(l.list, V(5), pos), 1);
        EXPECT_EQ(Values(l.list), std::vector<intptr_t>{5});
    }
}

TEST(List_Access, GetRemoveAndBounds) {
    ListOwner l;
    Fill(l.list, 4);
    EXPECT_EQ(os_list_get(l.list, 0), V(1));
    EXPECT_EQ(os_list_get(l.list, 3), V(4));
    EXPECT_EQ(os_list_get(l.list, -1), nullptr);
    EXPECT_EQ(os_list_get(l.list, 4), nullptr);
    EXPECT_EQ(os_list_at_end(l.list, 3), 0);
    EXPECT_EQ(os_list_at_end(l.list, 4), 1);

    EXPECT_EQ(os_list_remove(l.list, 4), -1);
    EXPECT_EQ(os_list_remove(l.list, -1), -1);
    EXPECT_EQ(os_list_remove(l.list, 2), 3);
    EXPECT_EQ(Values(l.list), (std::vector<intptr_t>{1, 2, 4}));
    EXPECT_EQ(os_list_remove(l.list, 0), 2);
    EXPECT_EQ(Values(l.list), (std::vector<intptr_t>{2, 4}));
    EXPECT_EQ(os_list_remove(l.list, 1), 1);
    EXPECT_EQ(os_list_remove(l.list, 0), 0);
    EXPECT_EQ(l.list->head, nullptr);
    EXPECT_EQ(os_list_at_end(l.list, 0), 1);
}

TEST(List_Access, InPlaceListAndNullList) {
    os_list inPlace;
    inPlace.count = 77;
    inPlace.head = reinterpret_cast<os_list_node*>(V(1));
    os_list_init(&inPlace);
    EXPECT_EQ(inPlace.count, 0);
    EXPECT_EQ(inPlace.head, nullptr);
    EXPECT_EQ(os_list_insert(&inPlace, V(3), 0), 1);
    EXPECT_EQ(os_list_remove(&inPlace, 0), 0);

    os_list_iter it{};
    EXPECT_EQ(os_list_insert(nullptr, V(1), 0), -1);
    EXPECT_EQ(os_list_get(nullptr, 0), nullptr);
    EXPECT_EQ(os_list_at_end(nullptr, 0), -1);
    EXPECT_EQ(os_list_remove(nullptr, 0), -1);
    EXPECT_EQ(os_list_count(nullptr), -1);
    EXPECT_EQ(os_list_begin(nullptr, &it), nullptr);
    EXPECT_EQ(os_list_next(&it), nullptr);
    EXPECT_EQ(os_list_erase(&it), nullptr);
    os_list_destroy(nullptr, nullptr);
    os_list_free_all(nullptr);
}

TEST(List_Cursor, WalksEveryElement) {
    ListOwner l;
    Fill(l.list, 5);
    os_list_iter it{};
    std::vector<intptr_t> seen;
    for (void* v = os_list_begin(l.list, &it); v; v = os_list_next(&it)) {
        EXPECT_EQ(it.index, static_cast<int>(seen.size()));
        seen.push_back(reinterpret_cast<intptr_t>(v));
    }
    EXPECT_EQ(seen, (std::vector<intptr_t>{1, 2, 3, 4, 5}));
    EXPECT_EQ(it.cur, nullptr);

    ListOwner empty;
    EXPECT_EQ(os_list_begin(empty.list, &it), nullptr);
    EXPECT_EQ(it.cur, nullptr);
}

TEST(List_Cursor, EraseHeadMovesListHead) {
    ListOwner l;
    Fill(l.list, 3);
    os_list_iter it{};
    ASSERT_EQ(os_list_begin(l.list, &it), V(1));
    EXPECT_EQ(os_list_erase(&it), V(2));
    EXPECT_EQ(it.index, 0);
    EXPECT_EQ(os_list_count(l.list), 2);
    ASSERT_NE(l.list->head, nullptr);
    EXPECT_EQ(l.list->head->value, V(2));
    EXPECT_EQ(os_list_get(l.list, 0), V(2));
}

TEST(List_Cursor, EraseAllLeavesEmptyList) {
    ListOwner l;
    Fill(l.list, 6);
    os_list_iter it{};
    int erased = 0;
    for (void* v = os_list_begin(l.list, &it); v; v = os_list_erase(&it)) ++erased;
    EXPECT_EQ(erased, 6);
    EXPECT_EQ(os_list_count(l.list), 0);
    EXPECT_EQ(l.list->head, nullptr);
    EXPECT_EQ(os_list_insert(l.list, V(8), 3), 1);  // still usable
    EXPECT_EQ(Values(l.list), std::vector<intptr_t>{8});
}

TEST(List_Cursor, EraseSomeWhileIterating) {
    ListOwner l;
    Fill(l.list, 7);
    os_list_iter it{};
    for (void* v = os_list_begin(l.list, &it); v;) {
        v = (reinterpret_cast<intptr_t>(v) % 2 == 0) ? os_list_erase(&it) : os_list_next(&it);
    }
    EXPECT_EQ(Values(l.list), (std::vector<intptr_t>{1, 3, 5, 7}));
    EXPECT_EQ(os_list_count(l.list), 4);

    // Erasing the tail ends the walk.
    ASSERT_EQ(os_list_begin(l.list, &it), V(1));
    for (int i = 0; i < 3; ++i) os_list_next(&it);
    EXPECT_EQ(os_list_erase(&it), nullptr);
    EXPECT_EQ(Values(l.list), (std::vector<intptr_t>{1, 3, 5}));
}

TEST(List_Cursor, InsertKeepsCursorOnItsElement) {
    struct Case {
        int pos;
        std::vector<intptr_t> expect;
        int index;
    };
    // The cursor stands on element 2 (value 3) of 1..4.
    const Case cases[] = {
        {0, {9, 1, 2, 3, 4}, 3},
        {2, {1, 2, 9, 3, 4}, 3},
        {3, {1, 2, 3, 9, 4}, 2},
        {-1, {1, 2, 3, 4, 9}, 2},
    };
    for (const Case& c : cases) {
        ListOwner l;
        Fill(l.list, 4);
        os_list_iter it{};
        os_list_begin(l.list, &it);
        os_list_next(&it);
        ASSERT_EQ(os_list_next(&it), V(3));
        EXPECT_EQ(os_list_insert_at_cursor(&it, V(9), c.pos), 5) << "pos " << c.pos;
        EXPECT_EQ(Values(l.list), c.expect) << "pos " << c.pos;
        EXPECT_EQ(it.index, c.index) << "pos " << c.pos;
        EXPECT_EQ(it.cur->value, V(3)) << "pos " << c.pos;
        // Erasing through the cursor still unlinks the right node.
        void* next = os_list_erase(&it);
        EXPECT_EQ(next, os_list_get(l.list, c.index)) << "pos " << c.pos;
        std::vector<intptr_t> rest = c.expect;
        rest.erase(rest.begin() + c.index);
        EXPECT_EQ(Values(l.list), rest) << "pos " << c.pos;
    }
}

std::vector<intptr_t> g_destroyed;
void RecordDestroyed(void* v) { g_destroyed.push_back(reinterpret_cast<intptr_t>(v)); }

TEST(List_Destroy, CallsFreeFunctionPerValue) {
    g_destroyed.clear();
    os_list* list = os_list_create();
    Fill(list, 3);
    os_list_destroy(list, RecordDestroyed);
    EXPECT_EQ(g_destroyed, (std::vector<intptr_t>{1, 2, 3}));

    // free_all releases heap values (the sanitizer build catches a leak).
    os_list* owned = os_list_create();
    for (int i = 0; i < 3; ++i) os_list_insert(owned, malloc(16), -1);
    os_list_free_all(owned);
}

// ---- threads and mutexes ----------------------------------------------------

TEST(Thread_Lifecycle, RunsJoinsAndExitsEarly) {
    std::atomic<int> value{0};
    os_thread* t = os_thread_create(nullptr, [](void* ctx) -> void* {
        static_cast<std::atomic<int>*>(ctx)->store(42);
        return nullptr;
    }, &value);
    ASSERT_NE(t, nullptr);
    EXPECT_EQ(os_thread_join(t), 0);
    EXPECT_EQ(value.load(), 42);
    os_thread_free(t);

    std::atomic<int> steps{0};
    t = os_thread_create(nullptr, [](void* ctx) -> void* {
        auto* n = static_cast<std::atomic<int>*>(ctx);
        n->store(1);
        os_thread_exit();
        n->store(2);
        return nullptr;
    }, &steps);
    ASSERT_NE(t, nullptr);
    EXPECT_EQ(os_thread_join(t), 0);
    EXPECT_EQ(steps.load(), 1);
    os_thread_free(t);

    EXPECT_EQ(os_thread_create(nullptr, nullptr, nullptr), nullptr);
    EXPECT_EQ(os_thread_join(nullptr), -1);
    os_thread_free(nullptr);
}

TEST(Mutex_Ownership, RecursiveForOwnerAndIgnoresForeignUnlock) {
    os_mutex* m = os_mutex_create();
    ASSERT_NE(m, nullptr);
    ASSERT_EQ(os_mutex_lock(m), 0);
    ASSERT_EQ(os_mutex_lock(m), 0);  // recursive for its owner

    std::atomic<int> foreignUnlock{-2};
    std::atomic<bool> acquired{false};
    std::thread other([&] {
        foreignUnlock = os_mutex_unlock(m);  // not the owner: no effect
        os_mutex_lock(m);
        acquired = true;
        os_mutex_unlock(m);
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(60));
    EXPECT_EQ(foreignUnlock.load(), 0);
    EXPECT_FALSE(acquired.load());
    EXPECT_EQ(os_mutex_unlock(m), 0);  // still held once
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    EXPECT_FALSE(acquired.load());
    EXPECT_EQ(os_mutex_unlock(m), 0);  // released now
    other.join();
    EXPECT_TRUE(acquired.load());

    EXPECT_EQ(os_mutex_lock(nullptr), -1);
    EXPECT_EQ(os_mutex_unlock(nullptr), -1);
    os_mutex_destroy(nullptr);
    os_mutex_destroy(m);
}

// ---- semaphores and conditions ----------------------------------------------

TEST(Sem_Wait, CountsTimesOutAndWakes) {
    os_sem* s = os_sem_create(2);
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(os_sem_wait(s), 0);
    EXPECT_EQ(os_sem_timedwait(s, 0), 0);
    auto start = Clock::now();
    EXPECT_EQ(os_sem_timedwait(s, 80), 1);
    EXPECT_GE(MsSince(start), 75);

    std::thread poster([s] {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        os_sem_post(s);
    });
    EXPECT_EQ(os_sem_timedwait(s, 5000), 0);
    poster.join();

    EXPECT_EQ(os_sem_post(nullptr), -1);
    EXPECT_EQ(os_sem_wait(nullptr), -1);
    EXPECT_EQ(os_sem_timedwait(nullptr, 1), -1);
    EXPECT_EQ(os_sem_destroy(s), 0);
}

struct CondFixture : ::testing::Test {
    os_cond* cond = os_cond_create();
    os_mutex* mutex = os_mutex_create();
    void SetUp() override {
        ASSERT_NE(cond, nullptr);
        ASSERT_NE(cond->sem, nullptr);
        ASSERT_NE(mutex, nullptr);
    }
    ~CondFixture() override {
        os_cond_destroy(cond);
        os_mutex_destroy(mutex);
    }
};

TEST_F(CondFixture, Cond_EarlySignalIsNotLost) {
    EXPECT_EQ(os_cond_signal(cond), 0);
    EXPECT_EQ(os_cond_signal(cond), 0);
    ASSERT_EQ(os_mutex_lock(mutex), 0);
    EXPECT_EQ(os_cond_wait(cond, mutex), 0);
    auto start = Clock::now();
    EXPECT_EQ(os_cond_timedwait_ms(cond, mutex, 2000), 0);
    EXPECT_LT(MsSince(start), 1000);
    // Both signals used up: the next wait times out.
    EXPECT_EQ(os_cond_timedwait_ms(cond, mutex, 30), 1);
    EXPECT_EQ(os_mutex_unlock(mutex), 0);
}

TEST_F(CondFixture, Cond_WaitReleasesCallerMutexAndHandsOver) {
    std::atomic<int> handed{0};
    ASSERT_EQ(os_mutex_lock(mutex), 0);
    std::thread producer([&] {
        // Needs the caller's mutex, which the wait must release.
        os_mutex_lock(mutex);
        handed = 1;
        os_mutex_unlock(mutex);
        os_cond_signal(cond);
    });
    EXPECT_EQ(os_cond_wait(cond, mutex), 0);
    EXPECT_EQ(handed.load(), 1);
    EXPECT_EQ(os_mutex_unlock(mutex), 0);
    producer.join();
}

TEST(Cond_Waiters, TwoWaitersOnOneMutexBothWake) {
    // The second waiter queues on the condition's own mutex while holding
    // the shared mutex; the first, once woken, must still get the shared
    // mutex back. Heap objects: on a deadlock the threads are abandoned.
    struct Shared {
        os_cond* cond = os_cond_create();
        os_mutex* mutex = os_mutex_create();
        std::atomic<int> waiting{0};
        std::atomic<int> done{0};
        ~Shared() {
            os_cond_destroy(cond);
            os_mutex_destroy(mutex);
        }
    };
    auto owner = std::make_unique<Shared>();
    Shared* shared = owner.get();
    auto waiter = [shared] {
        os_mutex_lock(shared->mutex);
        ++shared->waiting;
        if (os_cond_wait(shared->cond, shared->mutex) == 0) ++shared->done;
        os_mutex_unlock(shared->mutex);
    };
    std::thread first(waiter);
    while (shared->waiting < 1) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    std::thread second(waiter);
    while (shared->waiting < 2) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    os_cond_signal(shared->cond);
    os_cond_signal(shared->cond);

    auto start = Clock::now();
    while (shared->done < 2 && MsSince(start) < 3000) std::this_thread::sleep_for(std::chrono::milliseconds(2));
    if (shared->done < 2) {
        first.detach();
        second.detach();
        owner.release();  // still in use by the stuck threads
        FAIL() << "waiters deadlocked, " << shared->done.load() << " of 2 woke";
    }
    first.join();
    second.join();
}

TEST_F(CondFixture, Cond_TimedWaitTimesOutWithMutexHeldAgain) {
    ASSERT_EQ(os_mutex_lock(mutex), 0);
    auto start = Clock::now();
    EXPECT_EQ(os_cond_timedwait_ms(cond, mutex, 60), 1);
    EXPECT_GE(MsSince(start), 55);

    std::atomic<bool> acquired{false};
    std::thread other([&] {
        os_mutex_lock(mutex);
        acquired = true;
        os_mutex_unlock(mutex);
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    EXPECT_FALSE(acquired.load());  // the wait took the mutex back
    EXPECT_EQ(os_mutex_unlock(mutex), 0);
    other.join();
    EXPECT_TRUE(acquired.load());
}

TEST_F(CondFixture, Cond_AbsoluteDeadline) {
    os_timespec now{};
    ASSERT_EQ(os_clock_gettime(OS_CLOCK_REALTIME_MS, &now), 0);

    // A deadline in the past returns at once without touching the mutex: it
    // is held by another thread here, so any lock attempt would block.
    std::atomic<bool> locked{false};
    std::atomic<bool> release{false};
    std::thread holder([&] {
        os_mutex_lock(mutex);
        locked = true;
        while (!release) std::this_thread::sleep_for(std::chrono::milliseconds(2));
        os_mutex_unlock(mutex);
    });
    while (!locked) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    os_timespec past = now;
    past.sec -= 1;
    auto start = Clock::now();
    int rc = os_cond_timedwait_abs(cond, mutex, &past);
    long long elapsed = MsSince(start);
    release = true;
    holder.join();
    EXPECT_EQ(rc, 1);
    EXPECT_LT(elapsed, 100);

    ASSERT_EQ(os_mutex_lock(mutex), 0);
    os_timespec soon = now;
    soon.nsec += 80 * 1000000;
    if (soon.nsec >= 1000000000) {
        soon.nsec -= 1000000000;
        soon.sec += 1;
    }
    EXPECT_EQ(os_cond_timedwait_abs(cond, mutex, &soon), 1);
    os_cond_signal(cond);
    os_timespec later = now;
    later.sec += 5;
    start = Clock::now();
    EXPECT_EQ(os_cond_timedwait_abs(cond, mutex, &later), 0);
    EXPECT_LT(MsSince(start), 1000);
    EXPECT_EQ(os_mutex_unlock(mutex), 0);
}

TEST(Cond_Null, FailsSoftly) {
    os_mutex* m = os_mutex_create();
    os_timespec ts{};
    EXPECT_EQ(os_cond_signal(nullptr), -1);
    EXPECT_EQ(os_cond_wait(nullptr, m), -1);
    EXPECT_EQ(os_cond_timedwait_ms(nullptr, m, 1), -1);
    EXPECT_EQ(os_cond_timedwait_abs(nullptr, m, &ts), -1);
    EXPECT_EQ(os_cond_destroy(nullptr), 0);
    os_mutex_destroy(m);
}

// ---- clocks -----------------------------------------------------------------

TEST(Clock_Gettime, WallClockAtMillisecondGrain) {
    os_timespec ts{};
    EXPECT_EQ(os_clock_gettime(0, &ts), -1);
    EXPECT_EQ(os_clock_gettime(1, &ts), -1);
    EXPECT_EQ(os_clock_gettime(OS_CLOCK_REALTIME_MS, nullptr), -1);
    ASSERT_EQ(os_clock_gettime(OS_CLOCK_REALTIME_MS, &ts), 0);
    EXPECT_NEAR(static_cast<double>(ts.sec), static_cast<double>(time(nullptr)), 2.0);
    EXPECT_EQ(ts.nsec % 1000000, 0);
    EXPECT_GE(ts.nsec, 0);
    EXPECT_LT(ts.nsec, 1000000000);

    os_timeval tv{};
    ASSERT_EQ(os_gettimeofday(&tv), 0);
    EXPECT_NEAR(static_cast<double>(tv.sec), static_cast<double>(time(nullptr)), 2.0);
    EXPECT_GE(tv.usec, 0);
    EXPECT_LT(tv.usec, 1000000);
}

TEST(Clock_Diff, MillisecondsBetweenStamps) {
    struct Case {
        os_timespec a, b;
        int expect;
    };
    const Case cases[] = {
        {{10, 0}, {10, 0}, 0},
        {{10, 900000000}, {11, 100000000}, 200},
        {{11, 100000000}, {10, 900000000}, -200},
        {{5, 0}, {8, 1999999}, 3001},  // partial milliseconds are dropped
        {{100, 500000000}, {99, 0}, -1500},
    };
    for (const Case& c : cases) EXPECT_EQ(os_timespec_diff_ms(&c.a, &c.b), c.expect);
    os_timespec t{1, 0};
    EXPECT_EQ(os_timespec_diff_ms(nullptr, &t), 0);
    EXPECT_EQ(os_timespec_diff_ms(&t, nullptr), 0);
}

TEST(Clock_Tick, MonotonicAndTruncated) {
    uint64_t a = os_tick_count64();
    os_sleep_ms(20);
    uint64_t b = os_tick_count64();
    EXPECT_GE(b - a, 19u);
    EXPECT_LT(b - a, 2000u);
    uint32_t t32 = os_tick_count();
    EXPECT_LE(static_cast<uint32_t>(t32 - static_cast<uint32_t>(b)), 1000u);
}

TEST(Clock_TimeString, CompactLocalTime) {
    const char* s = os_time_string();
    ASSERT_NE(s, nullptr);
    EXPECT_TRUE(std::regex_match(s, std::regex(R"(\d{8}-\d{6})"))) << s;
    time_t now = time(nullptr);
    tm local{};
    localtime_r(&now, &local);
    char year[16];
    snprintf(year, sizeof year, "%04d", local.tm_year + 1900);
    EXPECT_EQ(std::string(s, 4), year);
}

// ---- text -------------------------------------------------------------------

TEST(Text_Trim, SpacesOnly) {
    struct Case {
        const char* in;
        int rc;
        const char* out;
    };
    const Case cases[] = {
        {"  ab c  ", 0, "ab c"}, {"abc", 0, "abc"}, {" x", 0, "x"},
        {"\tx \t ", 0, "\tx \t"}, {"", -1, ""}, {"    ", -1, ""},
    };
    for (const Case& c : cases) {
        char buf[32];
        snprintf(buf, sizeof buf, "%s", c.in);
        EXPECT_EQ(os_strtrim(buf), c.rc) << '"' << c.in << '"';
        EXPECT_STREQ(buf, c.out) << '"' << c.in << '"';
    }
    EXPECT_EQ(os_strtrim(nullptr), -1);
}

TEST(Text_Strlcpy, BoundedAndTerminated) {
    char buf[8];
    memset(buf, 'z', sizeof buf);
    EXPECT_EQ(os_strlcpy(buf, "abcdefghijk", sizeof buf), buf);
    EXPECT_STREQ(buf, "abcdefg");
    EXPECT_STREQ(os_strlcpy(buf, "ab", sizeof buf), "ab");
    memset(buf, 'z', sizeof buf);
    EXPECT_EQ(os_strlcpy(buf, "ab", -3), buf);
    EXPECT_EQ(buf[0], 'z');
    EXPECT_EQ(os_strlcpy(buf, nullptr, 4), buf);
    EXPECT_EQ(buf[0], 'z');
    EXPECT_EQ(os_strlcpy(nullptr, "ab", 4), nullptr);
}

// ---- forwarders --------------------------------------------------------------

class RecordingListener final : public IFrameListener {
public:
    int DoVideoBuffer(unsigned char* buf, int width, int height) override {
        calls.push_back("video " + std::to_string(buf[0]) + " " + std::to_string(width) + "x" +
                        std::to_string(height));
        return 7;
    }
    int DoAudioBuffer(unsigned short* buf, int a, int b) override {
        calls.push_back("audio " + std::to_string(buf[0]) + " " + std::to_string(a) + " " +
                        std::to_string(b));
        return -5;
    }
    int UpdateMotionAlarmRegion(char* region) override {
        calls.push_back(std::string("region ") + region);
        return 3;
    }
    std::vector<std::string> calls;
};

TEST(Notify_Forwarders, CallListenerThroughHolder) {
    RecordingListener listener;
    struct Holder {
        IFrameListener* listener;
        int other;
    } holder{&listener, 0};
    unsigned char picture[4] = {9};
    unsigned short samples[4] = {300};
    char region[] = "0110";
    EXPECT_EQ(os_notify_video(&holder, picture, 640, 480), 0);
    EXPECT_EQ(os_notify_audio(&holder, samples, 160, 8000), 0);
    EXPECT_EQ(os_notify_event(&holder, region), 0);
    EXPECT_EQ(listener.calls,
              (std::vector<std::string>{"video 9 640x480", "audio 300 160 8000", "region 0110"}));
    EXPECT_EQ(os_notify_video(nullptr, picture, 1, 1), -1);
}

// ---- loopback pipe -----------------------------------------------------------

int LocalPort(int fd) {
    sockaddr_in addr{};
    socklen_t len = sizeof addr;
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) != 0) return -1;
    return ntohs(addr.sin_port);
}

TEST(SockPair_Open, PortsClimbAndDataFlows) {
    int fdsBefore = camctl_test::CountOpenFds();
    os_sockpair* first = os_sockpair_open();
    ASSERT_NE(first, nullptr);
    os_sockpair* second = os_sockpair_open();
    ASSERT_NE(second, nullptr);

    int port1 = LocalPort(first->recv_fd);
    int port2 = LocalPort(second->recv_fd);
    EXPECT_GE(port1, 10501);
    EXPECT_LT(port1, 10551);
    EXPECT_GT(port2, port1);
    EXPECT_EQ(LocalPort(first->recv_fd), port1);

    const char msg[] = "frame-0042";
    EXPECT_EQ(os_sockpair_send(first, msg, sizeof msg), static_cast<int>(sizeof msg));
    char buf[32] = {};
    int got = 0;
    for (int i = 0; i < 50 && got < static_cast<int>(sizeof msg); ++i) {
        int n = os_sockpair_recv(first, buf + got, static_cast<int>(sizeof buf) - got);
        if (n <= 0) break;
        got += n;
    }
    EXPECT_EQ(got, static_cast<int>(sizeof msg));
    EXPECT_STREQ(buf, msg);

    EXPECT_EQ(os_sockpair_close(first), 0);
    EXPECT_EQ(os_sockpair_close(second), 0);
    // Two sockets per pair while open, none left after closing (the
    // listening socket is not kept).
    EXPECT_EQ(camctl_test::CountOpenFds(), fdsBefore);

    os_sockpair* third = os_sockpair_open();
    ASSERT_NE(third, nullptr);
    EXPECT_GT(LocalPort(third->recv_fd), port2);
    os_sockpair_close(third);

    EXPECT_EQ(os_sockpair_send(nullptr, msg, 1), -1);
    EXPECT_EQ(os_sockpair_recv(nullptr, buf, 1), -1);
    EXPECT_EQ(os_sockpair_close(nullptr), -1);
}

// ---- debug print -------------------------------------------------------------

// Captures what the calling thread writes to stderr while alive.
class StderrCapture {
public:
    StderrCapture() {
        fflush(stderr);
        file_ = tmpfile();
        saved_ = dup(STDERR_FILENO);
        dup2(fileno(file_), STDERR_FILENO);
    }
    ~StderrCapture() {
        Restore();
        fclose(file_);
    }
    std::string Text() {
        Restore();
        std::string out;
        rewind(file_);
        char buf[4096];
        size_t n;
        while ((n = fread(buf, 1, sizeof buf, file_)) > 0) out.append(buf, n);
        return out;
    }

private:
    void Restore() {
        if (saved_ < 0) return;
        fflush(stderr);
        dup2(saved_, STDERR_FILENO);
        close(saved_);
        saved_ = -1;
    }
    FILE* file_ = nullptr;
    int saved_ = -1;
};

TEST(Print_Line, FormatAndCut) {
    const std::string tail(49, '=');
    std::string text;
    {
        StderrCapture capture;
        os_print("open %s failed (%d)", "cam3", -5);
        text = capture.Text();
    }
    std::regex line(R"(PRINT \d{4}-\d\d-\d\d \d\d:\d\d:\d\d  open cam3 failed \(-5\))" + tail + "\n");
    EXPECT_TRUE(std::regex_match(text, line)) << text;

    std::string longMessage(3000, 'm');
    {
        StderrCapture capture;
        os_print("%s", longMessage.c_str());
        text = capture.Text();
    }
    EXPECT_EQ(text.size(), 1599u);
    EXPECT_EQ(text.compare(0, 6, "PRINT "), 0);
    EXPECT_EQ(text.back(), 'm');  // the tail and newline were cut
}

}  // namespace
