// The root object model (ecBase, ecLabeledState, ecError) lives at the bottom of the library,
// under the companion code; this is its public include.
#pragma once

#include "companion/ObjectModel.h"
