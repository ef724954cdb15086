// Request parsing: the envelope first, then the members of each operation.
#include "Request.h"

#include <nlohmann/json.hpp>
#include <optional>

#include "Base64.h"
#include "NodeClientFrames.h"

namespace hl::node {

namespace {

using json = nlohmann::json;

// Whether arrays and objects nest deeper than the limit (strings are skipped).
bool nestsTooDeep(std::string_view text, int limit) {
    int depth = 0;
    bool inString = false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (inString) {
            if (c == '\\')
                ++i;
            else if (c == '"')
                inString = false;
        } else if (c == '"') {
            inString = true;
        } else if (c == '[' || c == '{') {
            if (++depth > limit) return true;
        } else if (c == ']' || c == '}') {
            --depth;
        }
    }
    return false;
}

std::optional<Operation> operationNamed(const std::string& name) {
    if (name == "health") return Operation::Health;
    if (name == "list_sessions") return Operation::ListSessions;
    if (name == "replay_session") return Operation::ReplaySession;
    if (name == "create_session") return Operation::CreateSession;
    if (name == "poll") return Operation::Poll;
    if (name == "input") return Operation::Input;
    if (name == "resize") return Operation::Resize;
    if (name == "close_session") return Operation::CloseSession;
    if (name == "upgrade") return Operation::Upgrade;
    return std::nullopt;
}

// Reads the data members of one request, or says which one is wrong.
class Members {
  public:
    explicit Members(const json& data) : data_(data) {}

    std::optional<RequestError> text(const char* name, std::string& out) const {
        auto it = data_.find(name);
        if (it == data_.end()) return missing(name);
        if (!it->is_string())
            return RequestError{"field \"" + std::string(name) + "\" must be a string"};
        out = it->get<std::string>();
        return std::nullopt;
    }

    std::optional<RequestError> cells(const char* name, int& out) const {
        auto it = data_.find(name);
        if (it == data_.end()) return missing(name);
        const std::string mistyped = "field \"" + std::string(name) +
                                     "\" must be an integer from 1 to " +
                                     std::to_string(maximumTerminalCells);
        if (!it->is_number_integer()) return RequestError{mistyped};
        const auto value = it->get<std::int64_t>();
        if (value < 1 || value > maximumTerminalCells) return RequestError{mistyped};
        out = static_cast<int>(value);
        return std::nullopt;
    }

    // An optional integer from low to high; out stays as it is when absent.
    std::optional<RequestError> optionalCount(const char* name, std::int64_t low, std::int64_t high,
                                              std::int64_t& out) const {
        auto it = data_.find(name);
        if (it == data_.end()) return std::nullopt;
        if (!it->is_number_integer() || it->get<std::int64_t>() < low ||
            it->get<std::int64_t>() > high) {
            return RequestError{"field \"" + std::string(name) + "\" must be an integer from " +
                                std::to_string(low) + " to " + std::to_string(high)};
        }
        out = it->get<std::int64_t>();
        return std::nullopt;
    }

  private:
    static RequestError missing(const char* name) {
        return {"missing field \"" + std::string(name) + "\""};
    }
    const json& data_;
};

// Checks and copies the members that the operation needs.
std::optional<RequestError> readMembers(const json& data, Request& request) {
    const Members members(data);
    std::optional<RequestError> error;
    switch (request.operation) {
        case Operation::Health:
        case Operation::ListSessions:
            return std::nullopt;
        case Operation::ReplaySession:
            if ((error = members.text("session_id", request.sessionId))) return error;
            return members.text("expected_cwd", request.expectedCwd);
        case Operation::CreateSession:
            if ((error = members.text("cwd", request.cwd))) return error;
            if ((error = members.cells("cols", request.cols))) return error;
            if ((error = members.cells("rows", request.rows))) return error;
            if (request.cwd.find('\0') != std::string::npos) {
                return RequestError{"cwd must not contain a NUL character"};
            }
            if (request.cwd.empty() || request.cwd.front() != '/') {
                return RequestError{"cwd must be an absolute path"};
            }
            return std::nullopt;
        case Operation::Poll: {
            if ((error = members.text("session_id", request.sessionId))) return error;
            std::int64_t wait = 0, most = 0;
            if ((error = members.optionalCount("wait_ms", 0, maximumPollWaitMs, wait)))
                return error;
            if ((error = members.optionalCount("max_bytes", 1, std::int64_t{1} << 40, most)))
                return error;
            request.waitMs = static_cast<int>(wait);
            request.maxBytes = static_cast<std::size_t>(most);
            return std::nullopt;
        }
        case Operation::CloseSession:
            return members.text("session_id", request.sessionId);
        case Operation::Upgrade: {
            std::string framing;
            if ((error = members.text("framing", framing))) return error;
            if (framing != frames::framingName)
                return RequestError{std::string("unsupported framing (this node speaks ") +
                                    frames::framingName + ")"};
            return std::nullopt;
        }
        case Operation::Input: {
            if ((error = members.text("session_id", request.sessionId))) return error;
            std::string encoded;
            if ((error = members.text("input_base64", encoded))) return error;
            auto decoded = base64::decode(encoded);
            if (!decoded) return RequestError{"field \"input_base64\" is not valid base64"};
            request.input = std::move(*decoded);
            return std::nullopt;
        }
        case Operation::Resize:
            if ((error = members.text("session_id", request.sessionId))) return error;
            if ((error = members.cells("cols", request.cols))) return error;
            return members.cells("rows", request.rows);
    }
    return std::nullopt;
}

}  // namespace

std::variant<Request, RequestError> parseRequest(std::string_view text) {
    if (text.size() >= maximumRequestBytes) return RequestError{"request is too large"};
    if (nestsTooDeep(text, maximumRequestDepth)) return RequestError{"request nests too deeply"};
    const json top = json::parse(text, nullptr, false);
    if (top.is_discarded()) return RequestError{"request is not valid JSON"};
    if (!top.is_object()) return RequestError{"request is not a JSON object"};

    auto version = top.find("version");
    if (version == top.end()) return RequestError{"missing field \"version\""};
    if (!version->is_number_integer() || version->get<std::int64_t>() != 1) {
        return RequestError{"unsupported protocol version (this node speaks version 1)"};
    }
    auto op = top.find("op");
    if (op == top.end()) return RequestError{"missing field \"op\""};
    if (!op->is_string()) return RequestError{"field \"op\" must be a string"};
    auto operation = operationNamed(op->get<std::string>());
    if (!operation) {
        // The name is quoted back only when it is short enough to read.
        const auto& name = op->get_ref<const std::string&>();
        if (name.size() > 64) return RequestError{"unknown op"};
        return RequestError{"unknown op " +
                            op->dump(-1, ' ', true, json::error_handler_t::replace)};
    }

    static const json noData = json::object();
    auto data = top.find("data");
    if (data != top.end() && !data->is_object())
        return RequestError{"field \"data\" must be an object"};

    Request request;
    request.operation = *operation;
    if (auto error = readMembers(data == top.end() ? noData : *data, request)) return *error;
    return request;
}

}  // namespace hl::node
