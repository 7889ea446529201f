#include "host/framework/framework.h"

#include "host/framework/plug_play.h"

#include <pthread.h>

namespace host::framework {
namespace {

// It is held for less time than a sleep takes, so who finds it taken tries for a while before sleeping.
void TryBeforeSleeping(std::mutex& mutex)
{
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_ADAPTIVE_NP);
    pthread_mutex_init(mutex.native_handle(), &attributes);
    pthread_mutexattr_destroy(&attributes);
}

}  // namespace

Framework::Framework(Environment& machineEnvironment, kernel::Kernel& machineKernel, schedule::Threads& machineThreads)
    : environment(machineEnvironment), kernel(machineKernel), objects(*this), threads(*this, machineThreads),
      work(*this), lockOrder(handles)
{
    TryBeforeSleeping(mutex);
    current_ = this;
    environment.faults.onHideDriver = [this](bool hide) {
        const std::lock_guard lock(mutex);
        drivers.HideHandles(hide);
    };
    ConnectCallbackWaits(*this);
    if (environment.options.workItems == WorkItems::kThreads) {
        work.StartWorkers(environment.options.workerCount);
    }
}

Framework::~Framework()
{
    work.StopWorkers();
    environment.faults.onHideDriver = nullptr;
    current_ = nullptr;
}

bool Requires(const PlatformCall& call, const void* pointer, const char* argument)
{
    if (pointer == nullptr) {
        call.Violation(checks::Rule::kRequiredParameter, std::string(argument) + " is null");
        return false;
    }
    return true;
}

}  // namespace host::framework
