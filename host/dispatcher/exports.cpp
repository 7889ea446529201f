#include "host/dispatcher/dispatcher.h"

#include "host/image/exports.h"

#include <ntddk.h>

namespace host::dispatcher {

void RegisterExports()
{
    using image::Of;
    static const image::Export kExports[] = {
        Of("KeGetCurrentIrql", &KeGetCurrentIrql),
        Of("KfRaiseIrql", &KfRaiseIrql),
        Of("KeLowerIrql", &KeLowerIrql),
        Of("KeAcquireSpinLockRaiseToDpc", &KeAcquireSpinLockRaiseToDpc),
        Of("KeReleaseSpinLock", &KeReleaseSpinLock),
        Of("KeAcquireSpinLockAtDpcLevel", &KeAcquireSpinLockAtDpcLevel),
        Of("KeReleaseSpinLockFromDpcLevel", &KeReleaseSpinLockFromDpcLevel),
        Of("KeInitializeEvent", &KeInitializeEvent),
        Of("KeSetEvent", &KeSetEvent),
        Of("KeResetEvent", &KeResetEvent),
        Of("KeReadStateEvent", &KeReadStateEvent),
        Of("KeClearEvent", &KeClearEvent),
        Of("KeWaitForSingleObject", &KeWaitForSingleObject),
    };
    image::AddExports("ntoskrnl.exe", kExports);
}

}  // namespace host::dispatcher
