#include "common/digest.h"
