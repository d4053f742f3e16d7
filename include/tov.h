/*
 * Records, message layouts and values that the daemon and its clients share.
 *
 * All of them at once, for C and C++. A file that needs one half includes that half. Programs of
 * others get the first half only, under the same name: tov/tov.h.
 */
#ifndef TOV_H
#define TOV_H

#include "tov_registry.h" /* IWYU pragma: keep */
#include "tov_wire.h"     /* IWYU pragma: keep */

#endif /* TOV_H */
