# The backtrace and exception tests recognise their own functions in captured
# stacks by name, which the dynamic loader only knows for exported symbols.
set_target_properties(BacktraceTest ExceptionTest PROPERTIES ENABLE_EXPORTS ON)
