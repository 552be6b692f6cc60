// The one place where Boost.Asio's non-template code is compiled (BOOST_ASIO_SEPARATE_COMPILATION).
#include <boost/asio/impl/src.hpp>
#include <boost/asio/ssl/impl/src.hpp>
