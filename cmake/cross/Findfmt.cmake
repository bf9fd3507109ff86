include(HostHeaders)
plyconvert_host_headers(fmt::fmt fmt)
set_target_properties(fmt::fmt PROPERTIES INTERFACE_COMPILE_DEFINITIONS FMT_HEADER_ONLY)
set(fmt_FOUND TRUE)
