#pragma once

#include "threaded/QelTPIntLoopMgr.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

// Workers that log every (index, thread) they process and count their setups and
// finishes; the factory counts the workers made and alive.
class LoggingFactory final : public QelMTIntLoopWkrFactory {
public:
    struct Wkr final : QelMTIntLoopWkr {
        explicit Wkr(LoggingFactory& owner) : factory(owner) { ++factory.live; }
        ~Wkr() override { --factory.live; }
        bool Setup() override { ++factory.setups; return ++setups > 0; }
        bool Finish() override { ++factory.finishes; return ++finishes > 0; }
        bool Process(int index, int thread) override
        {
            if (factory.beforeIndex)
                factory.beforeIndex(index);
            std::lock_guard lock(factory.lock);
            factory.visits.emplace_back(index, thread);
            return true;
        }
        LoggingFactory& factory;
        int setups = 0;
        int finishes = 0;
    };

    std::unique_ptr<QelMTIntLoopWkr> CreateWorker() override
    {
        ++made;
        return std::make_unique<Wkr>(*this);
    }

    // The sorted indices `thread` processed (-1: any thread), forgetting them when `take`.
    std::vector<int> IndicesOf(int thread, bool take = false)
    {
        std::vector<int> indices;
        for (const auto& [index, by] : visits)
            indices.insert(indices.end(), thread < 0 || by == thread ? 1 : 0, index);
        std::sort(indices.begin(), indices.end());
        if (take)
            visits.clear();
        return indices;
    }

    std::mutex lock;
    std::vector<std::pair<int, int>> visits;
    std::atomic<int> live{0};
    std::atomic<int> made{0};
    std::atomic<int> setups{0};  // by all workers
    std::atomic<int> finishes{0};
    std::function<void(int index)> beforeIndex;  // set between loops, for faults and reports
};

inline LoggingFactory::Wkr& WorkerOf(const QelTPIntLoopMgr& manager, int thread)
{
    return *static_cast<LoggingFactory::Wkr*>(manager.Worker(thread));
}

inline std::unique_ptr<QelTPIntLoopMgr> ReadyManager(int mode, int threads, LoggingFactory& factory)
{
    std::unique_ptr<QelTPIntLoopMgr> manager = QelTPIntLoopMgr::New(mode, threads);
    if (manager) {
        manager->SetFactory(&factory);
        EXPECT_TRUE(manager->CreateWorkers());
    }
    return manager;
}

inline std::vector<int> Indices(int first, int last)
{
    std::vector<int> indices;
    for (long long index = first; index <= last; ++index)
        indices.push_back(static_cast<int>(index));
    return indices;
}
