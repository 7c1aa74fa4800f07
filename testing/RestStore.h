// A store with restic's REST API, in memory, for HttpServer. Paths are those of a repository at "/".
#pragma once

#include "testing/HttpServer.h"

#include <map>
#include <string>

namespace Testing {

struct RestStore
{
    unsigned int version = 2;                      ///< of the API
    bool isReplacing = true;                       ///< a file that exists may be stored again
    bool keepsLocks = false;                       ///< not even locks may be removed
    bool isAppendOnly = false;                     ///< only locks may be removed
    std::map<std::string, std::string> files = {}; ///< by path, such as "/data/ID"

    HttpAnswer Handle(const HttpRequest& request)
    {
        const std::string& path = request.target;
        if (request.method == "POST" && path.ends_with("?create=true"))
            return Answer(200);
        if (request.method == "GET" && path.ends_with('/'))
            return List(path);
        const auto found = files.find(path);
        if (request.method == "POST") {
            if (found != files.end() && !isReplacing)
                return Answer(403, "exists");
            files[path] = request.body;
            return Answer(200);
        }
        if (found == files.end())
            return Answer(404, request.method == "HEAD" ? "" : "none");
        if (request.method == "DELETE") {
            if (path.starts_with("/locks/") ? keepsLocks : isAppendOnly)
                return Answer(403, "append-only");
            files.erase(found);
            return Answer(200);
        }
        if (request.method == "HEAD")
            return {"HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(found->second.size()) +
                    "\r\n\r\n"};
        return Get(request, found->second);
    }

private:
    HttpAnswer List(const std::string& folder) const
    {
        std::string json;
        for (const auto& [path, content] : files) {
            if (!path.starts_with(folder))
                continue;
            const std::string name = "\"" + path.substr(folder.size()) + "\"";
            json +=
                (json.empty() ? "" : ",") +
                (version == 1 ? name
                              : "{\"name\":" + name + ",\"size\":" + std::to_string(content.size()) + "}");
        }
        return Answer(200, "[" + json + "]",
                      version == 1 ? "Content-Type: application/vnd.x.restic.rest.v1\r\n"
                                   : "Content-Type: application/vnd.x.restic.rest.v2\r\n");
    }

    static HttpAnswer Get(const HttpRequest& request, const std::string& content)
    {
        const auto range = request.headers.find("range");
        if (range == request.headers.end())
            return Answer(200, content);
        const unsigned long long first = std::stoull(range->second.substr(6));
        const std::string end = range->second.substr(range->second.find('-') + 1);
        const unsigned long long last = end.empty() ? content.size() : std::stoull(end);
        if (first >= content.size())
            return Answer(416);
        const std::string part = content.substr(first, last - first + 1);
        return Answer(206, part,
                      "Content-Range: bytes " + std::to_string(first) + "-" +
                          std::to_string(first + part.size() - 1) + "/" + std::to_string(content.size()) +
                          "\r\n");
    }
};

} // namespace Testing
