// The client's calls of the Notifier. They are seen, and one of them can be made to fail, because the client gets a
// table whose functions come here first.
#pragma once

#include "host/machine.h"
#include "tools/test_client/seen.h"

#include <functional>
#include <optional>
#include <vector>

namespace test_client {

struct Operation {
    const char* name;  // "Notifier_HelperSendState"
    NTSTATUS failure;  // what it returns when it is made to fail; STATUS_SUCCESS: it never is
};

// A call through the table while nobody holds the Notifier's device open is a finding: with the device its caller has
// given up all that keeps the code loaded.
//
// From construction to destruction; one at a time in a process.
class NotifierCalls {
public:
    // The Notifier that is up: of whose open handles to take notice.
    using FindNotifier = std::function<const host::Driver*()>;
    NotifierCalls(host::Machine& machine, Seen& seen, FindNotifier notifier);
    ~NotifierCalls();
    NotifierCalls(const NotifierCalls&) = delete;
    NotifierCalls& operator=(const NotifierCalls&) = delete;

    // The call of this number, counted from 0, fails with nothing done.
    void Fail(std::size_t number) { failing_ = number; }
    [[nodiscard]] bool HasFailed() const { return failing_ && made_.size() > *failing_; }
    [[nodiscard]] const std::vector<const Operation*>& made() const { return made_; }

    // For the functions in the table: the status of a call that fails.
    [[nodiscard]] std::optional<NTSTATUS> Begin(const Operation& operation, const void* caller);
    [[nodiscard]] Seen& seen() { return seen_; }
    [[nodiscard]] static NotifierCalls* Current();

private:
    host::Machine& machine_;
    Seen& seen_;
    const FindNotifier notifier_;
    bool wasOpen_ = false;  // when the client called: it has got the table by opening the device
    std::vector<const Operation*> made_;
    std::optional<std::size_t> failing_;
};

}  // namespace test_client
