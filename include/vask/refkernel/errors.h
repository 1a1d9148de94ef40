// Exceptions handed to plans, the error buffer of each thread, and the end of
// the process.
#ifndef VASK_REFKERNEL_ERRORS_H
#define VASK_REFKERNEL_ERRORS_H

#include "vask/refkernel/contract.h"

#include <string>

namespace refkernel {

//! What an exception string says.
struct operator_failure {
    std::string place;
    std::string text;
    bool operator==(const operator_failure &) const = default;
};

/*
 * Reads an exception string, "place:text" with no colon in the place, and frees
 * it. Every exception string comes from GDKmalloc's memory: whoever receives one
 * owns it and gives it back through this or GDKfree. Null reads as two empty texts.
 * A text without a colon is no exception string but a place that an operator names
 * in its stead: it reads as both and is not freed.
 */
REFKERNEL_API operator_failure take_exception(char *message);

//! What GDKerror recorded on the calling thread since it was last cleared.
REFKERNEL_API const std::string &error_buffer();
REFKERNEL_API void clear_error_buffer();

/*
 * What GDKfatal does instead of ending the process; null puts its own way back:
 * the message on standard error and exit status 1, at once and without
 * destructors, since tasks may still be running. GDKfatal returns what the handler
 * returns. The handler is called on the failing thread, which may be a task's.
 */
using fatal_handler = int (*)(const char *message);
REFKERNEL_API fatal_handler set_fatal_handler(fatal_handler handler);

/*
 * Collects what the calling thread prints on its output stream, which goes to
 * standard output otherwise. Captures nest.
 */
class REFKERNEL_API output_capture {
public:
    output_capture();
    ~output_capture();
    output_capture(const output_capture &) = delete;
    output_capture &operator=(const output_capture &) = delete;

    [[nodiscard]] const std::string &text() const { return text_; }

private:
    std::string text_;
    std::string *outer_;
};

} // namespace refkernel

#endif
