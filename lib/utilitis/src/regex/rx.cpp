// The width-independent entry points: release and result texts.
#include "karu/regex/rx.h"

#include <cstring>

namespace Karu {

void rxfree(RxObject* object) noexcept
{
    if (object && object->ops) object->ops->release(object);
}

const char* rxerrorText(int code) noexcept
{
    switch (code) {
    case RX_OK: return "success";
    case RX_NOMATCH: return "no match";
    case RX_ERR_DIRECTOR: return "invalid director";
    case RX_ERR_COLLATE: return "unknown collating element or equivalence class";
    case RX_ERR_CLASS: return "unknown character class";
    case RX_ERR_ESCAPE: return "bad or unfinished escape";
    case RX_ERR_BACKREF: return "invalid back-reference";
    case RX_ERR_BRACKET: return "unterminated bracket expression";
    case RX_ERR_PAREN: return "parentheses don't balance";
    case RX_ERR_BRACE: return "unterminated brace";
    case RX_ERR_BOUND: return "bad content of a brace";
    case RX_ERR_RANGE: return "invalid range in a bracket expression";
    case RX_ERR_MEMORY: return "out of memory";
    case RX_ERR_REPEAT: return "quantifier with nothing before it";
    case RX_ERR_INTERNAL: return "internal inconsistency";
    case RX_ERR_ARGUMENT: return "invalid argument";
    case RX_ERR_WIDTH: return "object of the other character width";
    case RX_ERR_OPTION: return "invalid embedded option";
    default: return "unknown result";
    }
}

size_t rxerror(int code, char* buffer, size_t size) noexcept
{
    const char* text = rxerrorText(code);
    const size_t need = std::strlen(text) + 1;
    if (buffer && size > 0) {
        const size_t n = need < size ? need : size;
        std::memcpy(buffer, text, n - 1);
        buffer[n - 1] = '\0';
    }
    return need;
}

}  // namespace Karu
