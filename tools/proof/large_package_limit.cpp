// What the updater takes unless its build says otherwise: a program of the proof has this in the place of a test build's limit.
#include "updater/build_config.h"

namespace corvo::build_config {

const std::uint64_t package_limit = 4294967296;

} // namespace corvo::build_config
