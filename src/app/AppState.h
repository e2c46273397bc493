#pragma once

// What the screens show, one state per screen in a header of its own; this gathers them for the
// worker adapters.
#include "app/CatalogState.h"
#include "app/SweepState.h"
