// TKV_THREAD_LOCAL: for small variables of threads that short operations use.
#ifndef TKV_PLATFORM_BASE_THREAD_VARIABLE_H
#define TKV_PLATFORM_BASE_THREAD_VARIABLE_H

// In a library that a program loads while it runs, as a JVM does, the address of a thread's variable is the result of a
// function call. These variables are reached like those of the program instead. They take up a few bytes of what the C
// library sets aside in each thread for the libraries that are loaded later, so there must be few of them.
#define TKV_THREAD_LOCAL [[gnu::tls_model("initial-exec")]] static thread_local

#endif
