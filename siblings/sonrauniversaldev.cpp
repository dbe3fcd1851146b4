#include "sonrauniversaldev.h"
