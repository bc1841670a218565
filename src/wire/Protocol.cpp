#include "wire/Protocol.h"

#include "wire/Digest.h"

namespace Protocol {

std::string hashPassword(std::string_view plain)
{
    std::string salted(kPasswordSalt);
    salted += plain;
    return Digest::md5OfString(salted);
}

} // namespace Protocol
