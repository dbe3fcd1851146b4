#include "g711.h"
