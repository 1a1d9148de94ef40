// How operations report a failure: to the thread's error buffer, and to a plan.
#ifndef REFKERNEL_ERROR_REPORTS_H
#define REFKERNEL_ERROR_REPORTS_H

namespace refkernel {

//! Adds a text to the calling thread's error buffer, like GDKerror.
[[gnu::format(printf, 1, 2)]] void record_error(const char *format, ...);

//! An exception string for a plan, like createException; null when memory runs out.
char *make_exception(const char *place, const char *text);

} // namespace refkernel

#endif
