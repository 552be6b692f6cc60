#include "PelorinNet/OpenSsl.h"

#include <openssl/err.h>

namespace pelorin::openssl {

std::string takeErrorText()
{
    const char* const reason = ERR_reason_error_string(ERR_peek_last_error());
    ERR_clear_error();
    return reason ? reason : "unknown error";
}

} // namespace pelorin::openssl
