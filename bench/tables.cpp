/// What an insertion, a look-up and a removal take with a number of records in the table: the
/// nanoseconds of one, as the median of many. The look-up and the removal are of the oldest record,
/// the last of the list. It runs the daemon's own functions, which no header offers.

#include "ipinfo.cpp" // NOLINT(bugprone-suspicious-include)

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <vector>

int kelo_log(const char *, int, const char *, const char *, ...)
{
    return 0;
}

void platform_ipinfo_ip(uint8_t, const char *, uint8_t, const void *, const char *, uint8_t) {}

void platform_ipinfo_route(uint8_t, const char *, uint8_t, const void *, const char *, uint8_t,
                           const void *, const char *)
{
}

namespace {

constexpr int rounds = 301;

struct Bytes {
    uint32_t words[4];
};

Bytes numbered(uint32_t number)
{
    return {{0x0db80120, 0, 0, number}};
}

long long nanoseconds()
{
    timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return time.tv_sec * 1000000000LL + time.tv_nsec;
}

template <typename Action>
long long timeOf(Action action)
{
    const long long start = nanoseconds();
    action();
    return nanoseconds() - start;
}

long long median(std::vector<long long> &samples)
{
    std::sort(samples.begin(), samples.end());
    return samples[samples.size() / 2];
}

} // namespace

int main()
{
    const uint32_t ifindex = if_nametoindex("lo");
    uint32_t newest = 0;
    uint32_t oldest = 0;
    for (const uint32_t size : {1U, 10U, 100U, 1000U, 10000U}) {
        while (newest - oldest < size) {
            const Bytes address = numbered(newest++);
            ipaddr_insert(ifindex, AF_INET6, &address, 64);
        }
        std::vector<long long> insert;
        std::vector<long long> find;
        std::vector<long long> remove;
        for (int round = 0; round < rounds; round++) {
            const Bytes first = numbered(oldest++);
            const Bytes next = numbered(newest++);
            find.push_back(timeOf([&] { ipaddr_find(ifindex, AF_INET6, &first, 64); }));
            remove.push_back(timeOf([&] { ipaddr_remove(ifindex, AF_INET6, &first, 64); }));
            insert.push_back(timeOf([&] { ipaddr_insert(ifindex, AF_INET6, &next, 64); }));
        }
        printf("%u %lld %lld %lld\n", size, median(insert), median(find), median(remove));
    }
}
