#pragma once

// Every screen of the window, for code that puts several of them together.
#include "app/ActivityPage.h"
#include "app/AppsPage.h"
#include "app/CleanupPage.h"
#include "app/DuplicatesPage.h"
#include "app/LargeOldPage.h"
#include "app/OnboardingPage.h"
#include "app/SettingsPage.h"
#include "app/SpaceMapPage.h"
#include "app/SweepPage.h"
