// Reply composition.
#include "Reply.h"

#include "Base64.h"

namespace hl::node {

std::string failureReply(std::string_view error) {
    nlohmann::json reply = {{"ok", false}, {"error", std::string(error)}};
    return reply.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
}

std::string successReply(const nlohmann::json& data, std::optional<std::string_view> output) {
    std::string members = data.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
    std::string reply = "{\"ok\":true,\"data\":";
    if (output) {
        const std::string encoded = base64::encode(*output);
        reply.reserve(reply.size() + members.size() + encoded.size() + 32);
        reply += "{\"output_base64\":\"";
        reply += encoded;
        reply += '"';
        // members is "{}" or "{...}": keep what follows its opening brace.
        if (members.size() > 2) reply += ',';
        reply.append(members, 1, std::string::npos);
    } else {
        reply += members;
    }
    reply += "}\n";
    if (reply.size() > maximumReplyBytes) return failureReply("reply would be too large");
    return reply;
}

}  // namespace hl::node
