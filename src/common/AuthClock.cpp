#include "auth_engine/AuthClock.h"

#include <sys/sysinfo.h>

#include <cstdio>
#include <ctime>
#include <memory>
#include <mutex>
#include <utility>

namespace auth_engine {
namespace {

using Clock = std::function<int64_t()>;

struct Overrides {
    std::mutex mutex;
    std::shared_ptr<const Clock> now;
    std::shared_ptr<const Clock> uptime;
};

Overrides& overrides() {
    static Overrides instance;
    return instance;
}

std::shared_ptr<const Clock> read(std::shared_ptr<const Clock> Overrides::*slot) {
    Overrides& o = overrides();
    std::lock_guard<std::mutex> lock(o.mutex);
    return o.*slot;
}

void write(std::shared_ptr<const Clock> Overrides::*slot, Clock clock) {
    std::shared_ptr<const Clock> next;
    if (clock) {
        next = std::make_shared<const Clock>(std::move(clock));
    }
    Overrides& o = overrides();
    std::lock_guard<std::mutex> lock(o.mutex);
    o.*slot = std::move(next);
}

int64_t procUptime() {
    std::FILE* file = std::fopen("/proc/uptime", "r");
    if (file == nullptr) {
        return -1;
    }
    double seconds = 0.0;
    const int fields = std::fscanf(file, "%lf", &seconds);
    std::fclose(file);
    return fields == 1 ? static_cast<int64_t>(seconds) : -1;
}

}  // namespace

int64_t AuthClock::now() {
    if (const auto clock = read(&Overrides::now)) {
        return (*clock)();
    }
    return static_cast<int64_t>(std::time(nullptr));
}

int64_t AuthClock::uptime() {
    if (const auto clock = read(&Overrides::uptime)) {
        return (*clock)();
    }
    timespec ts{};
    if (clock_gettime(CLOCK_MONOTONIC, &ts) == 0) {
        return static_cast<int64_t>(ts.tv_sec);
    }
    const int64_t fromProc = procUptime();
    if (fromProc >= 0) {
        return fromProc;
    }
    struct sysinfo info {};
    if (sysinfo(&info) == 0) {
        return static_cast<int64_t>(info.uptime);
    }
    return static_cast<int64_t>(std::time(nullptr));
}

void AuthClock::setNowOverride(std::function<int64_t()> clock) { write(&Overrides::now, std::move(clock)); }

void AuthClock::setUptimeOverride(std::function<int64_t()> clock) {
    write(&Overrides::uptime, std::move(clock));
}

}  // namespace auth_engine
