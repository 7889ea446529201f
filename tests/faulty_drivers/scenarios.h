#pragma once

#include "tests/faulty_drivers/faulty.h"

void NTAPI RunScenario(Scenario scenario);

WDFDEVICE TheDevice();
