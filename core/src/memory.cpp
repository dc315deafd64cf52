#include "core/memory.h"
