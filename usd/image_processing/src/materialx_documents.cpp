// MaterialX documents: their filename inputs as MaterialX resolves them, and the documents
// written again.

#include "materialx_documents.h"

#include <MaterialXCore/Document.h>
#include <MaterialXFormat/Util.h>
#include <MaterialXFormat/XmlIo.h>

namespace vorel::usd::assets::materialx {

namespace mx = MaterialX;

namespace {

/// Read options that keep a document as it is: comments and blank lines, its version, and each
/// xi:include as one element standing for it (with the href as its source), never read: an
/// included document is read, resolved and written on its own.
mx::XmlReadOptions keepingOptions(std::vector<std::string>& includes) {
    mx::XmlReadOptions options;
    options.readComments = true;
    options.readNewlines = true;
    options.upgradeVersion = false;
    options.readXIncludeFunction = [&includes](mx::DocumentPtr library, const mx::FilePath& href,
                                               const mx::FileSearchPath&, const mx::XmlReadOptions*) {
        const std::string text = href.asString(mx::FilePath::FormatPosix);
        library->setSourceUri(text);
        // Imported under a name of its own; written back as an xi:include of its source.
        library->addChildOfCategory(mx::CommentElement::CATEGORY,
                                    "vorel_xinclude" + std::to_string(includes.size()));
        includes.push_back(text);
    };
    return options;
}

mx::DocumentPtr read(const std::string& text, std::vector<std::string>& includes) {
    const mx::DocumentPtr document = mx::createDocument();
    const mx::XmlReadOptions options = keepingOptions(includes);
    mx::readFromXmlString(document, text, mx::FileSearchPath(), &options);
    return document;
}

/// The output type of what reads a filename input: its node, the node definition whose default
/// it is, or for a node graph's interface input, the first node inside that takes it.
std::string readerType(const mx::InputPtr& input) {
    const mx::ElementPtr parent = input->getParent();
    if (const mx::NodePtr node = parent->asA<mx::Node>()) {
        return node->getType();
    }
    if (const mx::NodeDefPtr definition = parent->asA<mx::NodeDef>()) {
        return definition->getType();
    }
    if (const mx::NodeGraphPtr graph = parent->asA<mx::NodeGraph>()) {
        for (const mx::NodePtr& node : graph->getNodes()) {
            for (const mx::InputPtr& used : node->getInputs()) {
                if (used->getInterfaceName() == input->getName()) {
                    return node->getType();
                }
            }
        }
    }
    return "";
}

/// The filename inputs that hold a value, in document order.
std::vector<mx::InputPtr> filenameInputs(const mx::DocumentPtr& document) {
    std::vector<mx::InputPtr> inputs;
    for (const mx::ElementPtr& element : document->traverseTree()) {
        const mx::InputPtr input = element->asA<mx::Input>();
        if (input && input->getType() == mx::FILENAME_TYPE_STRING && input->hasValueString() &&
            !input->getValueString().empty()) {
            inputs.push_back(input);
        }
    }
    return inputs;
}

const mx::DocumentPtr& standardLibraries() {
    static const mx::DocumentPtr libraries = [] {
        const mx::DocumentPtr loaded = mx::createDocument();
        // The "libraries" folder of the MaterialX this was built with; $MATERIALX_SEARCH_PATH
        // may name folders that hold another.
        mx::FileSearchPath roots = mx::getEnvironmentPath();
        roots.append(mx::FilePath(VOREL_MATERIALX_STDLIB_DIR).getParentPath());
        try {
            mx::loadLibraries({"libraries"}, roots, loaded);
        } catch (const std::exception&) {
            // Without them no node definition is known: inline shaders read as unknown nodes.
        }
        return loaded;
    }();
    return libraries;
}

}  // namespace

bool materialxAvailable() { return true; }

Document readDocument(const std::string& text) {
    Document found;
    try {
        const mx::DocumentPtr document = read(text, found.includes);
        const std::vector<mx::InputPtr> inputs = filenameInputs(document);
        std::vector<DocumentInput> listed;
        for (const mx::InputPtr& input : inputs) {
            const std::string type = readerType(input);
            const std::string& named = input->getActiveColorSpace();
            listed.push_back({input->getNamePath(), input->getValueString(), "", type,
                              !isColorType(type) ? "" : named.empty() ? kDefaultColorSpace : named});
        }
        // The paths as MaterialX resolves them, by its own flattening.
        mx::flattenFilenames(document);
        for (size_t i = 0; i < inputs.size(); ++i) {
            listed[i].resolved = inputs[i]->getValueString();
        }
        found.inputs = std::move(listed);
    } catch (const std::exception& failure) {
        found.error = failure.what();
    }
    return found;
}

std::string writeDocument(const std::string& text, const std::map<std::string, InputTarget>& targets,
                          const std::function<std::string(const std::string&)>& elsewhere,
                          const std::function<std::string(const std::string&)>& include,
                          std::string& error) {
    try {
        std::vector<std::string> includes;
        const mx::DocumentPtr document = read(text, includes);
        mx::flattenFilenames(document);  // whole paths, and no fileprefix left
        for (const mx::InputPtr& input : filenameInputs(document)) {
            const auto target = targets.find(input->getNamePath());
            if (target == targets.end()) {
                input->setValueString(elsewhere(input->getValueString()));
                continue;
            }
            input->setValueString(target->second.value);
            const std::string& space = target->second.colorSpace;
            if (!space.empty() && space != input->getActiveColorSpace() &&
                !(space == kDefaultColorSpace && input->getActiveColorSpace().empty())) {
                input->setColorSpace(space);
            }
        }
        for (const mx::ElementPtr& child : document->getChildren()) {
            if (child->hasSourceUri()) {  // an include
                child->setSourceUri(include(child->getSourceUri()));
            }
        }
        return mx::writeToXmlString(document);
    } catch (const std::exception& failure) {
        error = failure.what();
        return "";
    }
}

std::string nodeDefinitionType(const std::string& nodeDefName) {
    const mx::NodeDefPtr definition = standardLibraries()->getNodeDef(nodeDefName);
    return definition ? definition->getType() : "";
}

}  // namespace vorel::usd::assets::materialx
