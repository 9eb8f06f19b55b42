// Filled in with the configuration reader.
#include "utils/read_configuration.h"
