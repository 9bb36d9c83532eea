// The logging layer: levelled log records, per-site filter cells, the
// framework-wide trace index and the ring of trace lines.
#include "c_boundary.h"
#include "octunnel/yfw_framework.h"
#include "yfwhost/host.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <string>

namespace {

std::atomic<uint32_t> trace_index{0};

// A filter cell holds (generation << 1 | keep) once its site has been
// decided, and all ones before.  A new filter starts a new generation, so
// every site decides again on its next record.
std::atomic<int> filter_generation{1};
std::mutex filter_mutex;
std::function<bool(const char *)> site_filter;

bool site_keeps(int *cell, const char *format)
{
    std::atomic_ref<int> c(*cell);
    int generation = filter_generation.load();
    int seen = c.load();
    if (seen != -1 && (seen >> 1) == generation)
        return (seen & 1) != 0;
    bool keep = true;
    {
        std::lock_guard lock(filter_mutex);
        if (site_filter)
            keep = site_filter(format);
    }
    c.store((generation << 1) | (keep ? 1 : 0));
    return keep;
}

} // namespace

namespace yfwhost {
void set_log_site_filter(std::function<bool(const char *format)> keep)
{
    std::lock_guard lock(filter_mutex);
    site_filter = std::move(keep);
    int next = filter_generation.load() + 1;
    filter_generation = next >= (1 << 29) ? 1 : next;
}
} // namespace yfwhost

extern "C" {

int yfw_debug_should_log(void *dbg, int level)
{
    if (dbg == nullptr || level < 0 || level > 31)
        return 0;
    return (static_cast<const yfw_debug_block *>(dbg)->levels >> level) & 1u;
}

void _vlos_dt_log_filter_adv(void *handle, int, int, int, int, int, int *cell, const char *format,
                             ...)
{
    auto *sink = static_cast<yfwhost::Request::LogSink *>(handle);
    if (sink == nullptr || !sink->write || format == nullptr)
        return;
    va_list args;
    va_start(args, format);
    va_list again;
    va_copy(again, args);
    yfwhost::c_boundary([&] {
        if (cell != nullptr && !site_keeps(cell, format))
            return;
        char small[256];
        int n = std::vsnprintf(small, sizeof small, format, args);
        if (n >= 0 && static_cast<size_t>(n) < sizeof small) {
            sink->write(small);
        } else if (n >= 0) {
            std::string line(static_cast<size_t>(n), '\0');
            std::vsnprintf(line.data(), line.size() + 1, format, again);
            sink->write(line);
        }
    });
    va_end(args);
    va_end(again);
}

uint32_t ret_nc_yfw_trace_index_incr(void)
{
    return ++trace_index;
}

void _lstrace(void *handle, unsigned long long, const char *line)
{
    auto *ring = static_cast<yfwhost::Request::Ring *>(handle);
    if (ring == nullptr || line == nullptr || ring->capacity == 0)
        return;
    yfwhost::c_boundary([&] {
        if (ring->lines.size() == ring->capacity) {
            ring->lines.pop_front();
            ring->dropped++;
        }
        ring->lines.emplace_back(line);
        if (ring->owner != nullptr && ring->owner->recording())
            ring->owner->record(std::string("ring ") + line);
    });
}

} // extern "C"
