#include "avc/fcc.h"
