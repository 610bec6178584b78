#include "support/testing.h"  // the precompiled header of the tests needs a target, and a target a source
