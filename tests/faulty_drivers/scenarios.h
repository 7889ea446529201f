#pragma once

#include "tests/faulty_drivers/broken.h"

void NTAPI RunScenario(Scenario scenario);

WDFDEVICE TheDevice();
