// The pools' invariant checks.
//
// They stay on in every build (NDEBUG or not): a guard overwritten or a block lent twice means
// the heap is already damaged, and the abort with its fixed text is part of the pools' contract.
// The source name and line of each check are fixed texts as well, so that a report reads the
// same whichever build or compiler produced it.
#ifndef OXA_SRC_MEMORY_POOL_ASSERT_H_
#define OXA_SRC_MEMORY_POOL_ASSERT_H_

// The C library's assertion report: prints "file:line: function: Assertion `text' failed."
// and aborts. Declared here since <assert.h> hides it when NDEBUG is defined.
extern "C" void __assert_fail(const char* assertion, const char* file, unsigned int line,
                              const char* function) noexcept __attribute__((noreturn));

/** Aborts through the standard assertion report unless `condition` holds. */
#define OXA_POOL_ASSERT(condition, text, source, line, function) \
  ((condition) ? static_cast<void>(0) : __assert_fail(text, source, line, function))

#endif  // OXA_SRC_MEMORY_POOL_ASSERT_H_
