// The kltce executables' operator new: malloc (mimalloc's, which the tool links), and when it finds
// no memory the standard's answer, the new-handler if one is set, else std::bad_alloc.
//
// mimalloc's own operator new aborts the process when memory runs out (its shared library cannot
// see the program's new-handler), so `kltce` would end with SIGABRT and nothing said; with this
// one, running out of memory reaches main()'s handler: "kltce: out of memory" and status 4. The
// program's definition takes precedence over the shared library's; operator delete stays
// mimalloc's free, which takes what its malloc gave. Linked only with mimalloc (see CMakeLists).
#include <cstdlib>
#include <new>

namespace {

void* allocate(std::size_t size) {
  if (size == 0) size = 1;
  for (;;) {
    if (void* p = std::malloc(size)) return p;
    std::new_handler handler = std::get_new_handler();
    if (!handler) throw std::bad_alloc();
    handler();
  }
}

}  // namespace

void* operator new(std::size_t size) { return allocate(size); }
void* operator new[](std::size_t size) { return allocate(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  try {
    return allocate(size);
  } catch (...) {
    return nullptr;
  }
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
  try {
    return allocate(size);
  } catch (...) {
    return nullptr;
  }
}
