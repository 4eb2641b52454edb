// MaterialX documents in a build without MaterialX: none can be read, and the asset road says so.

#include "materialx_documents.h"

namespace vorel::usd::assets::materialx {

bool materialxAvailable() { return false; }

Document readDocument(const std::string&) {
    return {"this build has no MaterialX (build with MaterialX_DIR set)", {}, {}};
}

std::string writeDocument(const std::string&, const std::map<std::string, InputTarget>&,
                          const std::function<std::string(const std::string&)>&,
                          const std::function<std::string(const std::string&)>&,
                          std::string& error) {
    error = readDocument("").error;
    return "";
}

std::string nodeDefinitionType(const std::string&) { return ""; }

}  // namespace vorel::usd::assets::materialx
