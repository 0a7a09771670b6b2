// How much memory operator new has given out and not got back: what a hostile peer must not be able to drive up.
#ifndef TANDEM_TESTS_CORE_HEAP_METER_H
#define TANDEM_TESTS_CORE_HEAP_METER_H

#include <cstddef>

namespace tndm::sim {

size_t heap_in_use();

}  // namespace tndm::sim

#endif
