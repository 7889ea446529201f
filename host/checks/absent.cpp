#include "host/checks/absent.h"

#include "host/environment.h"
#include "host/schedule/parking.h"

namespace host::checks {

void StopAtAbsent(const std::string& name, const void* caller)
{
    Environment::Current().Report(Rule::kNotProvided, name, "this host does not have it", caller);
    schedule::ParkThisThread("called " + name + ", which this host does not have");
}

}  // namespace host::checks
