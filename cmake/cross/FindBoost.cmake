include(HostHeaders)
plyconvert_host_headers(Boost::headers boost)
set(Boost_FOUND TRUE)
