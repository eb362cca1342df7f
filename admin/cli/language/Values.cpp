#include "admin/cli/language/Values.h"

#include <cstdio>

#include "catalogue/QelFailure.h"
#include "catalogue/qel_messages.h"
#include "catalogue/qel_msg.h"
#include "catalogue/qel_strtol.h"
#include "runtime/qel_io.h"

std::uint32_t refuseValue(const char* name) {
    qel_flush_output();
    qel_fprintf(stderr, kMsgInvalidValue, name);
    std::fputs("\n", stderr);
    return kStatusInvalidValue;
}

std::int32_t readNumber(const char* word, const char* name, std::int32_t least) {
    std::int32_t number = 0;
    if (qel_strtol(word, 10, &number) != 0 || number < least) {
        throw QelFailure(refuseValue(name));
    }
    return number;
}
