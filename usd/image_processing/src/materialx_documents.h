#pragma once

// MaterialX documents as the asset road sees them: the image files their `filename` inputs name,
// and a document written again to point at converted files. MaterialX's own rules resolve every
// path (fileprefix, [token] substitutions) and colour space; nothing here restates them. A
// document is read from its text, so that one inside a .usdz package reads like one on disk.
// Built only when MaterialX is found; `materialxAvailable()` says whether it was.

#include <functional>
#include <map>
#include <string>
#include <vector>

namespace vorel::usd::assets::materialx {

/// Whether this build reads MaterialX documents at all.
bool materialxAvailable();

/// One `filename` input with a value, on a node, a node definition (its default) or a node
/// graph's interface.
struct DocumentInput {
    std::string namePath;  ///< the input's path in its document, such as "NG_wood/image1/file"
    std::string value;     ///< as authored
    std::string resolved;  ///< after fileprefix and [token]s: absolute, or relative to the
                           ///< document; "<UDIM>" and "<UVTILE>" kept
    std::string type;      ///< the output type of the node that reads it ("color3", "float", ...)
    std::string colorSpace;  ///< a colour type's active colour space, "lin_rec709" when none is
                             ///< named; "" for data
};

struct Document {
    std::string error;                  ///< MaterialX's reason when the text doesn't read
    std::vector<std::string> includes;  ///< each xi:include's href, as authored
    std::vector<DocumentInput> inputs;
};

/// The document in `text`, its version as it is (never upgraded); its includes are listed, not
/// read: each is a document of its own.
Document readDocument(const std::string& text);

/// What a document's input is to say once its file is converted.
struct InputTarget {
    std::string value;       ///< the converted file, relative to the written document
    std::string colorSpace;  ///< a colour type's new colour space; "" to leave it as it is
};

/// `text` written again: each input in `targets` (by name path) to its target, every other
/// filename to `elsewhere(resolved)`, each include's href to `include(href)`, the fileprefix
/// attributes gone (every path is whole now), all else as it was. `error` says why it can't be.
std::string writeDocument(const std::string& text, const std::map<std::string, InputTarget>& targets,
                          const std::function<std::string(const std::string&)>& elsewhere,
                          const std::function<std::string(const std::string&)>& include,
                          std::string& error);

/// The output type of the standard libraries' node definition `nodeDefName` ("ND_image_color3"
/// gives "color3"); "" for a name that they don't define.
std::string nodeDefinitionType(const std::string& nodeDefName);

/// Whether a MaterialX type holds colour (else the image is data, never colour-converted).
inline bool isColorType(const std::string& type) { return type == "color3" || type == "color4"; }

/// MaterialX's working colour space, where nothing in a document names one.
inline const std::string kDefaultColorSpace = "lin_rec709";

}  // namespace vorel::usd::assets::materialx
