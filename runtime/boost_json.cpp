/// The parts of Boost.JSON that are not inline. The client's library and the server each link a copy of their own.

#include <boost/json/src.hpp>
