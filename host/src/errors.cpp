#include "yfwhost/host.h"

namespace yfwhost {

const char *error_name(verrno code)
{
    switch (code) {
    case YFW_OK:
        return "YFW_OK";
    case YFW_ERR_NO_SUBTREES:
        return "YFW_ERR_NO_SUBTREES";
    case YFW_ERR_INVALID_ARG:
        return "YFW_ERR_INVALID_ARG";
    case YFW_ERR_UNSUPPORTED_TAG:
        return "YFW_ERR_UNSUPPORTED_TAG";
    case YFW_ERR_LIST_KEY:
        return "YFW_ERR_LIST_KEY";
    case YFW_ERR_KEY_DELETE:
        return "YFW_ERR_KEY_DELETE";
    case YFW_ERR_NOT_SUPPORTED:
        return "YFW_ERR_NOT_SUPPORTED";
    case YFW_SKIP_NODE:
        return "YFW_SKIP_NODE";
    case YFW_ERR_AUGMENT_NOT_SUPPORTED:
        return "YFW_ERR_AUGMENT_NOT_SUPPORTED";
    case YFW_ERR_LEAFREF_MISMATCH:
        return "YFW_ERR_LEAFREF_MISMATCH";
    case YFW_ERR_HOST_FAILURE:
        return "YFW_ERR_HOST_FAILURE";
    default:
        return nullptr;
    }
}

} // namespace yfwhost
