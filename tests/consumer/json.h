// A header of the host, which has the name of one of the library.
struct HostJSON {};
