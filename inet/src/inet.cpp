#include "core/api.h"
