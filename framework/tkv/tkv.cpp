#include "tkv.h"
