#pragma once

#include "tests/broken_drivers/broken.h"

void NTAPI RunScenario(Scenario scenario);

WDFDEVICE TheDevice();
