// Collects what a KovaBpfClient hands its callbacks, for tests to wait on and inspect.
#pragma once

#include <stdint.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "kova/bpf_client.h"

namespace kova::test {

class EventCollector {
  public:
    struct Received {
        uint32_t id;
        std::string record;
        std::thread::id thread;
    };

    // A callback that records every event; the collector must outlive the client's use of it.
    Kova::Client::EventCallback Callback() {
        return [this](const Kova::Client::ClientEvent& event) {
            std::lock_guard<std::mutex> lock(lock_);
            received_.push_back({event.id, std::string(event.record), std::this_thread::get_id()});
            changed_.notify_all();
        };
    }

    // Waits until `count` events of `id` (any id when 0) have arrived.
    bool WaitFor(size_t count, uint32_t id = 0, std::chrono::milliseconds timeout = std::chrono::seconds(5)) {
        std::unique_lock<std::mutex> lock(lock_);
        return changed_.wait_for(lock, timeout, [&] { return CountLocked(id) >= count; });
    }

    std::vector<Received> All() const {
        std::lock_guard<std::mutex> lock(lock_);
        return received_;
    }
    // The records of `id`, in arrival order.
    std::vector<std::string> Records(uint32_t id) const {
        std::lock_guard<std::mutex> lock(lock_);
        std::vector<std::string> records;
        for (const Received& event : received_) {
            if (event.id == id) records.push_back(event.record);
        }
        return records;
    }
    size_t Count(uint32_t id = 0) const {
        std::lock_guard<std::mutex> lock(lock_);
        return CountLocked(id);
    }

  private:
    size_t CountLocked(uint32_t id) const {
        size_t count = 0;
        for (const Received& event : received_) count += id == 0 || event.id == id;
        return count;
    }

    mutable std::mutex lock_;
    std::condition_variable changed_;
    std::vector<Received> received_;
};

}  // namespace kova::test
