#include "host/framework/framework.h"

#include "host/framework/devices.h"
#include "host/framework/plug_play.h"

namespace host::framework {
namespace {

Framework* g_current = nullptr;

}  // namespace

Framework::Framework(Environment& machineEnvironment, kernel::Kernel& machineKernel, schedule::Threads& machineThreads)
    : environment(machineEnvironment), kernel(machineKernel), threads(machineThreads)
{
    g_current = this;
    RegisterLoaderExports();
    RegisterPlugPlayExports();
    environment.faults.onHideDriver = [this](bool hide) { HideDriverHandles(hide); };
    ConnectCallbackWaits(*this);
    if (environment.options.workItems == WorkItems::kThreads) {
        StartWorkers();
    }
}

Framework::~Framework()
{
    StopWorkers();
    environment.faults.onHideDriver = nullptr;
    g_current = nullptr;
}

Framework& Framework::Current()
{
    return *g_current;
}

}  // namespace host::framework
