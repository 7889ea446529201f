// A machine with a driver that answers the client interface, and peers on it: what every measurement starts from.
#pragma once

#include "host/machine.h"
#include "driver/include/zepn_notifier.h"

#include <cstdint>
#include <deque>
#include <filesystem>

namespace bench {

// What is loaded.
enum class Subject {
    kNative,   // the Notifier as a shared object
    kX64,      // the image that ships; on x86-64 machines only
    kMinimal,  // the least that the platform permits, native
    kMinimalX64,
};
[[nodiscard]] const char* Name(Subject subject);
[[nodiscard]] std::filesystem::path ImageOf(Subject subject);

struct FixtureOptions {
    Subject subject = Subject::kNative;
    unsigned clients = 1;            // besides the poster, which registers last
    unsigned subscriptionsEach = 0;  // of each client: to the poster's states from 1 upwards
    host::WorkItems workItems = host::WorkItems::kPumped;
    unsigned workers = 1;
    bool guardPages = false;
    bool attachesCrashDump = true;  // so that posting announces nothing
};

// Throws std::runtime_error when anything is refused.
class Fixture {
public:
    explicit Fixture(const FixtureOptions& options);
    ~Fixture();
    Fixture(const Fixture&) = delete;
    Fixture& operator=(const Fixture&) = delete;

    host::Machine machine;
    host::Driver* driver;
    ZEP_NOTIFIER_HELPER_INTERFACE helper{};
    ZEP_NOTIFIER_WPCD_INTERFACE wpcd{};

    void Register(ULONG number);
    void Subscribe(ULONG subscriber, ULONG target, ULONG state);
    void Post(ULONG client, ULONG state);
    void Command(ULONG sender, ULONG target);  // every client takes commands and answers none
    void Leave(ULONG client);

    // The client that posts.
    [[nodiscard]] ULONG poster() const { return poster_; }
    // States delivered to clients in this process so far; counted by the callbacks.
    static std::uint64_t Deliveries();

private:
    const ULONG poster_;
};

}  // namespace bench
