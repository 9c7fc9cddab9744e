// Looks after what changes by itself: deletes reports that have been kept long enough, names the versions of new programs in the
// symbol store, and notices new symbols. A thread of its own, with a database connection of its own.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

namespace corvo::reports {

class store;

struct keeper_settings {
    std::string database;
    std::string symbols;
    std::int64_t keep_full_days;  // 0: for ever
    std::int64_t keep_short_days; // 0: for ever
};

class keeper {
public:
    // `has_new_symbols` is called on the keeper's thread, at the start too.
    keeper(keeper_settings settings, std::function<void()> has_new_symbols);
    ~keeper();
    keeper(const keeper&) = delete;
    keeper& operator=(const keeper&) = delete;

private:
    void work();
    void look(store& where);
    bool sleep();

    keeper_settings m_settings;
    std::function<void()> m_has_new_symbols;
    std::string m_seen; // of the symbol store
    std::int64_t m_swept = 0;
    std::mutex m_mutex;
    std::condition_variable m_wake;
    bool m_ends = false;
    std::thread m_thread;
};

} // namespace corvo::reports
