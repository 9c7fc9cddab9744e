// What a process holds at a moment: handles, threads, memory. For the comparison of before with after.
//
// The program that is linked with it counts its objects, too. Failures end the program: a measurement that was not made must not look like
// one that found nothing. Objects of windows and of drawing are not counted: Wine does not know how many there are.
#pragma once

#include <cstddef>

namespace endurance {

struct measures {
    std::size_t handles = 0;
    std::size_t threads = 0;
    std::size_t objects = 0;      // made with new and not deleted, exactly
    std::size_t object_bytes = 0; // asked for with them
    std::size_t heaps = 0;
    std::size_t heap_bytes =
        0; // in use in all heaps; many small blocks may count as the one they are cut from
    std::size_t private_bytes = 0; // committed pages that belong to no file and to no other process
    std::size_t modules = 0;
};

measures measure();

// One line: "LABEL handles=1 threads=2 ...".
void print(const char* label, const measures& found);

} // namespace endurance
