// Whole numbers that the environment sets, within bounds: one place decides
// what an empty, negative, overflowing or trailing text means.
#ifndef VANTREL_COMMONS_ENV_NUMBER_H
#define VANTREL_COMMONS_ENV_NUMBER_H

namespace velmo {

// The value of the variable name when it is a whole number from least to
// most; otherwise (also when it is empty) fallback, and a warning says once
// per variable that its value was ignored. Unset gives fallback silently.
long envNumber(const char* name, long least, long most, long fallback);

}  // namespace velmo

#endif
