#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

// Runs the numbered pieces of one job (stripes of a frame) on the calling thread and on
// helper threads of its own, each taking the next piece not yet taken. The caller never
// waits for a helper to wake up: when the helpers are slow to get a core, it runs the pieces
// itself and waits only for those a helper has begun. Helpers sleep between jobs instead of
// spinning, so that they take no time from other threads (the video decoder's) then.
//
// run() is called by one thread at a time (the owner's); the helpers only run pieces.
class ParallelStripes {
public:
    // Starts `helpers` threads (none for 0 or less), or as many as the system allows.
    explicit ParallelStripes(int helpers);
    // Helper threads running.
    int helpers() const { return static_cast<int>(m_helpers.size()); }
    // Ends and joins the helpers.
    ~ParallelStripes();

    ParallelStripes(const ParallelStripes&) = delete;
    ParallelStripes& operator=(const ParallelStripes&) = delete;

    // Runs work(0) ... work(count - 1), each once, and returns when all have returned. The
    // pieces must be independent of each other and must not throw.
    void run(int count, const std::function<void(int)>& work);

    // Where piece `piece` of `count` begins when `total` items are split evenly; piece
    // `count` gives `total`. Thread-safe.
    static int firstOf(int piece, int count, int total)
    {
        return static_cast<int>(static_cast<long long>(total) * piece / count);
    }

private:
    void help();
    // Runs pieces while any is left to take; called and returning with m_mutex held.
    void runPieces(std::unique_lock<std::mutex>& lock);

    std::mutex m_mutex;
    std::condition_variable m_wake;
    std::condition_variable m_done;
    const std::function<void(int)>* m_work = nullptr;
    int m_count = 0;
    int m_next = 0;     // the next piece to take
    int m_finished = 0; // pieces that have returned
    bool m_stopping = false;
    std::vector<std::thread> m_helpers;
};
