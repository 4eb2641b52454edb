// USD assets: the textures of an asset's layer stack, read where they lie, and the asset written
// again to point at converted textures.

#include "usd_assets.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <set>
#include <tuple>
#include <unordered_set>

#include <OpenImageIO/filesystem.h>
#include <OpenImageIO/imageio.h>
#include <pxr/base/tf/errorMark.h>
#include <pxr/base/tf/pathUtils.h>
#include <pxr/usd/ar/asset.h>
#include <pxr/usd/ar/packageUtils.h>
#include <pxr/usd/ar/resolver.h>
#include <pxr/usd/sdf/assetPath.h>
#include <pxr/usd/sdf/attributeSpec.h>
#include <pxr/usd/sdf/layer.h>
#include <pxr/usd/sdf/layerUtils.h>
#include <pxr/usd/sdf/primSpec.h>
#include <pxr/usd/sdf/types.h>
#include <pxr/usd/usd/primRange.h>
#include <pxr/usd/usd/stage.h>
#include <pxr/usd/usd/zipFile.h>
#include <pxr/usd/usdShade/input.h>
#include <pxr/usd/usdShade/shader.h>
#include <pxr/usd/usdShade/udimUtils.h>
#include <pxr/usd/usdUtils/coalescingDiagnosticDelegate.h>
#include <pxr/usd/usdUtils/dependencies.h>
#include <pxr/usd/usdUtils/usdzPackage.h>
#include <vorel/base/logging.h>
#include <vorel/base/str_utils.h>

#include "image_reading.h"
#include "materialx_documents.h"

namespace vorel::usd::assets {

PXR_NAMESPACE_USING_DIRECTIVE

namespace {

using AssetPathMap = std::function<std::string(const SdfPath& attribute, const std::string& path)>;

/// UsdUVTexture's inputs: the file, and what its samples are.
const TfToken kFileInput("inputs:file");
const TfToken kSourceColorSpace("inputs:sourceColorSpace");
const TfToken kUvTexture("UsdUVTexture");
const std::string kUvTile = "<UVTILE>";

/// The errors posted since `mark`, one per line, or `fallback` when there are none. They are
/// cleared: the caller reports them, so OpenUSD doesn't print them again.
std::string errorText(const TfErrorMark& mark, const std::string& fallback) {
    std::string text;
    std::set<std::string> said;  // OpenUSD may post the same error for each time it opens a file
    for (auto error = mark.GetBegin(); error != mark.GetEnd(); ++error) {
        if (said.insert(error->GetCommentary()).second) {
            text += (text.empty() ? "" : "\n") + error->GetCommentary();
        }
    }
    mark.Clear();
    return text.empty() ? fallback : text;
}

/// How a layer and a resolved asset path are named throughout: what the resolver gives.
std::string keyOf(const SdfLayerHandle& layer) {
    const std::string resolved = layer->GetResolvedPath().GetPathString();
    return resolved.empty() ? layer->GetIdentifier() : resolved;
}

std::string resolve(const SdfLayerHandle& layer, const std::string& path) {
    if (UsdShadeUdimUtils::IsUdimIdentifier(path)) {
        return UsdShadeUdimUtils::ResolveUdimPath(path, layer);
    }
    return ArGetResolver().Resolve(SdfComputeAssetPathRelativeToLayer(layer, path)).GetPathString();
}

/// A path written in a MaterialX document, anchored to the document as OpenUSD anchors a layer's
/// asset paths: inside its package, for a document in a .usdz.
std::string anchorToDocument(const std::string& document, const std::string& path) {
    if (ArIsPackageRelativePath(document) && TfIsRelativePath(path)) {
        const auto [package, inner] = ArSplitPackageRelativePathOuter(document);
        const std::string folder = TfGetPathName(inner);
        return ArJoinPackageRelativePath(
            package, ArIsPackageRelativePath(inner) ? anchorToDocument(inner, path)
                                                    : TfNormPath(folder.empty() ? path
                                                                                : folder + path));
    }
    return ArGetResolver().CreateIdentifier(path, ArResolvedPath(document));
}

/// The tiles of a MaterialX <UVTILE> set that exist (u1_v1 to u10_v10, as UDIM 1001 to 1100).
std::vector<std::string> resolveUvTiles(const std::string& anchored) {
    std::vector<std::string> files;
    const size_t at = anchored.rfind(kUvTile);
    for (int v = 1; v <= 10; ++v) {
        for (int u = 1; u <= 10; ++u) {
            std::string tile = anchored;
            tile.replace(at, kUvTile.size(), "u" + std::to_string(u) + "_v" + std::to_string(v));
            if (std::string file = ArGetResolver().Resolve(tile); !file.empty()) {
                files.push_back(std::move(file));
            }
        }
    }
    return files;
}

/// The file name inside a package path (pkg.usdz[textures/a.png] gives textures/a.png).
std::string innermost(std::string path) {
    while (ArIsPackageRelativePath(path)) {
        path = ArSplitPackageRelativePathInner(path).second;
    }
    return path;
}

bool namesImage(const std::string& path, const std::unordered_set<std::string>& extensions) {
    return extensions.count(base::strUtils::toLower(TfGetExtension(innermost(path)))) > 0;
}

std::unordered_set<std::string> imageExtensions() {
    std::unordered_set<std::string> extensions;
    for (const std::string& extension : image_processing::getSupportedImageExtensions()) {
        extensions.insert(base::strUtils::toLower(extension));
    }
    return extensions;
}

/// `value` with `map` applied to each asset path in it (an SdfAssetPath or an array of them).
VtValue mapAssetPaths(const VtValue& value,
                      const std::function<std::string(const std::string&)>& map) {
    if (value.IsHolding<SdfAssetPath>()) {
        return VtValue(SdfAssetPath(map(value.UncheckedGet<SdfAssetPath>().GetAssetPath())));
    }
    if (value.IsHolding<VtArray<SdfAssetPath>>()) {
        VtArray<SdfAssetPath> paths = value.UncheckedGet<VtArray<SdfAssetPath>>();
        for (SdfAssetPath& path : paths) {
            path = SdfAssetPath(map(path.GetAssetPath()));
        }
        return VtValue(paths);
    }
    return value;
}

/// Calls `map` on every asset path that an attribute spec of `layer` holds, as default value or
/// time sample, in variants too; with `write`, each value takes the paths that `map` returns.
void mapAttributeAssetPaths(const SdfLayerHandle& layer, const AssetPathMap& map, bool write) {
    std::vector<SdfPath> attributes;  // collected first: writing during a traversal isn't safe
    layer->Traverse(SdfPath::AbsoluteRootPath(), [&](const SdfPath& path) {
        if (path.IsPropertyPath()) {
            attributes.push_back(path);
        }
    });
    for (const SdfPath& path : attributes) {
        const SdfAttributeSpecHandle spec = layer->GetAttributeAtPath(path);
        if (!spec || (spec->GetTypeName() != SdfValueTypeNames->Asset &&
                      spec->GetTypeName() != SdfValueTypeNames->AssetArray)) {
            continue;
        }
        const auto mapHere = [&](const std::string& assetPath) { return map(path, assetPath); };
        if (spec->HasDefaultValue()) {
            const VtValue mapped = mapAssetPaths(spec->GetDefaultValue(), mapHere);
            if (write) {
                spec->SetDefaultValue(mapped);
            }
        }
        for (const double time : layer->ListTimeSamplesForPath(path)) {
            VtValue sample;
            layer->QueryTimeSample(path, time, &sample);
            const VtValue mapped = mapAssetPaths(sample, mapHere);
            if (write) {
                layer->SetTimeSample(path, time, mapped);
            }
        }
    }
}

/// The sourceColorSpace authored beside a texture's file input on the same prim spec.
std::string sourceColorSpaceBeside(const SdfLayerHandle& layer, const SdfPath& attribute) {
    const SdfAttributeSpecHandle spec = layer->GetAttributeAtPath(
        attribute.GetPrimOrPrimVariantSelectionPath().AppendProperty(kSourceColorSpace));
    if (!spec || !spec->HasDefaultValue()) {
        return "";
    }
    const VtValue value = spec->GetDefaultValue();
    return value.IsHolding<TfToken>() ? value.UncheckedGet<TfToken>().GetString() : "";
}

void setSourceColorSpace(const SdfLayerHandle& layer, const SdfPath& attribute,
                         const std::string& space) {
    const SdfPath primPath = attribute.GetPrimOrPrimVariantSelectionPath();
    const SdfPrimSpecHandle prim = layer->GetPrimAtPath(primPath);
    if (!prim || space.empty()) {
        return;
    }
    SdfAttributeSpecHandle spec =
        layer->GetAttributeAtPath(primPath.AppendProperty(kSourceColorSpace));
    if (!spec) {
        spec = SdfAttributeSpec::New(prim, kSourceColorSpace.GetString(), SdfValueTypeNames->Token,
                                     SdfVariabilityUniform);
    }
    if (spec) {
        spec->SetDefaultValue(VtValue(TfToken(space)));
    }
}

/// Sets the colorSpace metadata of the attribute spec at `attribute`, where there is a space.
void setColorSpaceMetadata(const SdfLayerHandle& layer, const SdfPath& attribute,
                           const std::string& space) {
    if (const SdfAttributeSpecHandle spec = layer->GetAttributeAtPath(attribute);
        spec && !space.empty()) {
        spec->SetColorSpace(TfToken(space));
    }
}

/// What the composed stage says of the shader that reads a file.
struct ShaderUse {
    std::string shader;            ///< its id
    std::string sourceColorSpace;  ///< a UsdUVTexture's
    std::string type;              ///< a MaterialX node's output type
    std::string colorSpace;        ///< the colorSpace metadata of a MaterialX colour image's input
};
using ShaderUses = std::map<std::pair<std::string, std::string>, ShaderUse>;

/// What the composed stage says of the shader that reads each texture, by every attribute spec
/// (layer, path) that produces the file: the shader's input itself, or a material's interface
/// input connected to it, wherever in the layer stack either is authored. A UsdUVTexture's
/// sourceColorSpace; for a MaterialX node (ND_image_color3, ...) the type of its definition and
/// the colorSpace of its input, MaterialX's working space where none is named.
ShaderUses composedShaders(const std::string& assetPath) {
    ShaderUses uses;
    // The asset's own errors come from opening its layers, before; the stage's are left out.
    const TfErrorMark mark;
    const UsdStageRefPtr stage = UsdStage::Open(assetPath);
    mark.Clear();
    if (!stage) {
        return uses;
    }
    // Into instances too: their shaders are the prototypes' specs.
    for (const UsdPrim& prim : stage->Traverse(UsdTraverseInstanceProxies())) {
        const UsdShadeShader shader(prim);
        TfToken id;
        if (!prim.IsA<UsdShadeShader>() || !shader.GetShaderId(&id)) {
            continue;
        }
        ShaderUse use{id.GetString(), "", "", ""};
        if (id == kUvTexture) {
            TfToken space;
            if (const UsdShadeInput input = shader.GetInput(TfToken("sourceColorSpace"))) {
                input.Get(&space);
            }
            use.sourceColorSpace = space.GetString();
        } else {
            use.type = materialx::nodeDefinitionType(use.shader);
        }
        for (const UsdShadeInput& input : shader.GetInputs()) {
            if (input.GetTypeName() != SdfValueTypeNames->Asset) {
                continue;
            }
            const TfToken named = input.GetAttr().GetColorSpace();
            use.colorSpace = !materialx::isColorType(use.type) ? ""
                             : named.IsEmpty() ? materialx::kDefaultColorSpace
                                               : named.GetString();
            for (const UsdAttribute& producer : input.GetValueProducingAttributes()) {
                for (const SdfPropertySpecHandle& spec : producer.GetPropertyStack()) {
                    uses.emplace(std::pair(keyOf(spec->GetLayer()), spec->GetPath().GetString()),
                                 use);
                }
            }
        }
    }
    return uses;
}

/// The files of a texture path: the file it resolves to, or the tiles of a UDIM set that exist.
std::vector<std::string> resolveFiles(const SdfLayerHandle& layer, const std::string& path) {
    std::vector<std::string> files;
    if (UsdShadeUdimUtils::IsUdimIdentifier(path)) {
        for (const auto& [file, tile] : UsdShadeUdimUtils::ResolveUdimTilePaths(path, layer)) {
            files.push_back(file);
        }
    } else if (std::string file = resolve(layer, path); !file.empty()) {
        files.push_back(std::move(file));
    }
    return files;
}

bool isDocument(const std::string& path) {
    return base::strUtils::toLower(TfGetExtension(innermost(path))) == "mtlx";
}

/// The files of a path written in a document: the file, or the tiles of a set that exist.
std::vector<std::string> resolveDocumentFiles(const std::string& document, const std::string& path) {
    const std::string anchored = anchorToDocument(document, path);
    if (anchored.find(kUvTile) != std::string::npos) {
        return resolveUvTiles(anchored);
    }
    std::vector<std::string> files;
    if (UsdShadeUdimUtils::IsUdimIdentifier(anchored)) {
        for (const auto& [file, tile] : UsdShadeUdimUtils::ResolveUdimTilePaths(anchored, {})) {
            files.push_back(file);
        }
    } else if (std::string file = ArGetResolver().Resolve(anchored); !file.empty()) {
        files.push_back(std::move(file));
    }
    return files;
}

/// Reads the MaterialX documents `documents` and those they include, asking `mayOpen` (when
/// given) before each: their image inputs become textures, other files dependencies, each path
/// that resolves to nothing a line of `missing`, naming its document.
void walkDocuments(std::vector<std::string> documents, const MayOpenLayer& mayOpen,
                   const std::unordered_set<std::string>& extensions, AssetDependencies& found) {
    std::set<std::string> seen(documents.begin(), documents.end());
    for (size_t next = 0; next < documents.size(); ++next) {
        const std::string document = documents[next];  // a copy: `documents` grows below
        if (mayOpen && !mayOpen(document)) {
            found.unopened.push_back(document);
            continue;
        }
        found.documents.push_back(document);
        const std::optional<std::string> text = readAssetBytes(document);
        const materialx::Document read =
            text ? materialx::readDocument(*text)
                 : materialx::Document{"OpenUSD's resolver can't open it", {}, {}};
        if (!read.error.empty()) {
            found.error += (found.error.empty() ? "" : "\n") + document + ": " + read.error;
            continue;
        }
        for (const std::string& href : read.includes) {
            const std::string included = ArGetResolver().Resolve(anchorToDocument(document, href));
            if (included.empty()) {
                found.missing.push_back(href + " (included by " + document + ")");
            } else if (seen.insert(included).second) {
                documents.push_back(included);
            }
        }
        for (const materialx::DocumentInput& input : read.inputs) {
            std::vector<std::string> files = resolveDocumentFiles(document, input.resolved);
            if (files.empty()) {
                found.missing.push_back(input.resolved + " (input " + input.namePath + " in " +
                                        document + ")");
            }
            if (!namesImage(input.resolved, extensions)) {
                found.files.insert(found.files.end(), files.begin(), files.end());
                continue;
            }
            found.textures.push_back({"", document, input.namePath, input.resolved, "", "",
                                      input.type, input.colorSpace, std::move(files)});
        }
    }
}

/// The MaterialX documents among an asset's dependencies, whether OpenUSD opened them as layers
/// (with usdMtlx) or lists them as files: read by MaterialX, never walked or written as layers.
std::vector<std::string> documentsAmong(const std::vector<SdfLayerRefPtr>& layers,
                                        const std::vector<std::string>& assets) {
    std::vector<std::string> documents;
    for (const SdfLayerRefPtr& layer : layers) {
        if (layer && isDocument(keyOf(layer))) {
            documents.push_back(keyOf(layer));
        }
    }
    std::copy_if(assets.begin(), assets.end(), std::back_inserter(documents), isDocument);
    return documents;
}

/// The textures of documents that resolve to nothing, as OpenUSD lists them when it reads the
/// documents itself: reported once, by their document and input.
std::set<std::string> missingInDocuments(const AssetDependencies& found) {
    std::set<std::string> missing;
    for (const AssetTexture& texture : found.textures) {
        if (!texture.document.empty() && texture.files.empty()) {
            missing.insert(anchorToDocument(texture.document, texture.assetPath));
        }
    }
    return missing;
}

/// `target` as an asset path written in a layer in `folder`: relative where it can be.
std::string relativeAssetPath(const std::string& target, const std::filesystem::path& folder) {
    const std::filesystem::path relative = std::filesystem::path(target).lexically_relative(folder);
    if (relative.empty()) {
        return target;
    }
    const std::string text = relative.generic_string();
    return text.rfind("../", 0) == 0 ? text : "./" + text;
}

/// A path that resolves to `resolved`, as written in a file in `folder`: to its output where it
/// has one, else to where it lies now; as it was when it resolves to nothing.
std::string relocated(const std::string& path, const std::string& resolved,
                      const std::map<std::string, std::string>& outputs,
                      const std::filesystem::path& folder) {
    if (resolved.empty()) {
        return path;
    }
    const auto copied = outputs.find(resolved);
    return copied == outputs.end() ? resolved : relativeAssetPath(copied->second, folder);
}

/// Opens the layers that `root` composes, directly or through others, asking `mayOpen` first
/// (for the MaterialX documents it composes, and what they include, too):
/// the layers opened (kept open, so that the walk after this one reads each once) and the paths
/// refused.
std::pair<std::vector<SdfLayerRefPtr>, std::vector<std::string>> openComposedLayers(
    const SdfLayerRefPtr& root, const MayOpenLayer& mayOpen) {
    std::vector<SdfLayerRefPtr> opened{root};
    std::vector<std::string> refused;
    std::set<std::string> seen{keyOf(root)};
    for (size_t next = 0; next < opened.size(); ++next) {
        const SdfLayerRefPtr layer = opened[next];  // a copy: `opened` grows below
        for (const std::string& path : layer->GetCompositionAssetDependencies()) {
            const std::string resolved = resolve(layer, path);
            if (resolved.empty() || !seen.insert(resolved).second) {
                continue;  // a missing layer is the walk's to report
            }
            if (!mayOpen(resolved)) {
                refused.push_back(resolved);
            } else if (isDocument(resolved)) {
                // Read by MaterialX once the layers are known; but OpenUSD's own MaterialX
                // plugin reads it and its includes as it composes: they are asked about now.
                AssetDependencies included;
                walkDocuments({resolved}, mayOpen, {}, included);
                refused.insert(refused.end(), included.unopened.begin(), included.unopened.end());
            } else if (const SdfLayerRefPtr composed = SdfLayer::FindOrOpen(resolved)) {
                opened.push_back(composed);
            }
        }
    }
    return {opened, refused};
}

/// Writes `document` as it is to lie at `outputs[document]` (or its temporary), its inputs
/// pointing at their textures' targets, its includes and other files at their outputs, the rest
/// where it lies now; a reason on failure.
std::string writeDocument(const AssetDependencies& dependencies, const std::string& document,
                          const std::map<std::string, std::string>& outputs,
                          const std::vector<std::optional<TextureTarget>>& targets,
                          const std::map<std::string, std::string>& temporaries) {
    const auto output = outputs.find(document);
    const std::optional<std::string> text = readAssetBytes(document);
    if (output == outputs.end() || !text) {
        return "OpenUSD's resolver can't open " + document + " again";
    }
    const std::filesystem::path folder = std::filesystem::path(output->second).parent_path();
    std::map<std::string, materialx::InputTarget> inputs;
    for (size_t i = 0; i < dependencies.textures.size() && i < targets.size(); ++i) {
        const AssetTexture& texture = dependencies.textures[i];
        if (texture.document == document && targets[i]) {
            inputs[texture.attribute] = {relativeAssetPath(targets[i]->path, folder),
                                         targets[i]->colorSpace};
        }
    }
    const auto moved = [&](const std::string& path) {
        return relocated(path, ArGetResolver().Resolve(anchorToDocument(document, path)), outputs,
                         folder);
    };
    std::string failure;
    const std::string written = materialx::writeDocument(*text, inputs, moved, moved, failure);
    if (!failure.empty()) {
        return "MaterialX couldn't write " + document + " again: " + failure;
    }
    const auto temporary = temporaries.find(document);
    const std::string& path = temporary == temporaries.end() ? output->second : temporary->second;
    std::filesystem::create_directories(folder);
    std::ofstream file(path, std::ios::binary);
    file << written;
    file.close();
    return file ? "" : "couldn't write " + path + ": " + std::strerror(errno);
}

}  // namespace

AssetDependencies findAssetDependencies(const std::string& assetPath, const MayOpenLayer& mayOpen) {
    AssetDependencies found;
    const UsdUtilsCoalescingDiagnosticDelegate quiet;  // what matters is reported in `found`
    const TfErrorMark mark;
    const SdfLayerRefPtr root = SdfLayer::FindOrOpen(assetPath);
    if (!root) {
        found.error = errorText(mark, "OpenUSD can't open " + assetPath);
        return found;
    }
    std::vector<SdfLayerRefPtr> opened{root};
    if (mayOpen) {
        std::tie(opened, found.unopened) = openComposedLayers(root, mayOpen);
        if (!found.unopened.empty()) {
            mark.Clear();  // what the refused layers would have said is moot
            found.rootLayer = keyOf(root);
            for (const SdfLayerRefPtr& layer : opened) {
                found.layers.push_back(keyOf(layer));
            }
            return found;
        }
    }
    std::vector<SdfLayerRefPtr> layers;
    std::vector<std::string> assets;
    std::vector<std::string> unresolved;
    UsdUtilsComputeAllDependencies(SdfAssetPath(assetPath), &layers, &assets, &unresolved);
    if (!mark.IsClean()) {
        found.error = errorText(mark, "");
        return found;
    }
    found.rootLayer = keyOf(root);
    found.layers.push_back(found.rootLayer);
    const ShaderUses composed = composedShaders(assetPath);
    const std::unordered_set<std::string> extensions = imageExtensions();
    walkDocuments(documentsAmong(layers, assets), mayOpen, extensions, found);
    std::set<std::tuple<std::string, std::string, std::string>> seen;
    std::set<std::string> textureFiles(found.documents.begin(), found.documents.end());
    for (const AssetTexture& texture : found.textures) {
        textureFiles.insert(texture.files.begin(), texture.files.end());
    }
    textureFiles.insert(found.files.begin(), found.files.end());
    std::set<std::string> missing = missingInDocuments(found);
    for (const SdfLayerRefPtr& layer : layers) {
        if (!layer || isDocument(keyOf(layer))) {
            continue;
        }
        const std::string layerKey = keyOf(layer);
        if (layerKey != found.rootLayer) {
            found.layers.push_back(layerKey);
        }
        mapAttributeAssetPaths(
            layer,
            [&](const SdfPath& attribute, const std::string& path) {
                if (namesImage(path, extensions) &&
                    seen.emplace(layerKey, attribute.GetString(), path).second) {
                    // What the composed stage says wins; a shader it doesn't reach (a variant
                    // not selected) says its sourceColorSpace beside the file.
                    const auto composedUse = composed.find({layerKey, attribute.GetString()});
                    ShaderUse use = composedUse != composed.end() ? composedUse->second
                                                                  : ShaderUse{};
                    if (use.sourceColorSpace.empty() && use.type.empty()) {
                        use.sourceColorSpace = sourceColorSpaceBeside(layer, attribute);
                    }
                    AssetTexture texture{layerKey,         "",       attribute.GetString(),
                                         path,             use.shader, use.sourceColorSpace,
                                         use.type,         use.colorSpace,
                                         resolveFiles(layer, path)};
                    if (texture.files.empty()) {
                        found.missing.push_back(path + " (in " + layerKey + ")");
                        missing.insert(SdfComputeAssetPathRelativeToLayer(layer, path));
                    }
                    textureFiles.insert(texture.files.begin(), texture.files.end());
                    found.textures.push_back(std::move(texture));
                }
                return path;
            },
            /*write=*/false);
    }
    for (std::string& file : assets) {
        if (textureFiles.count(file) == 0) {
            found.files.push_back(std::move(file));
        }
    }
    for (const std::string& path : unresolved) {
        if (missing.count(path) == 0) {
            found.missing.push_back(path);
        }
    }
    return found;
}

std::string writeAsset(const AssetDependencies& dependencies,
                       const std::map<std::string, std::string>& outputs,
                       const std::vector<std::optional<TextureTarget>>& targets,
                       const std::map<std::string, std::string>& temporaries) {
    const TfErrorMark mark;
    for (const std::string& layerKey : dependencies.layers) {
        const auto output = outputs.find(layerKey);
        const SdfLayerRefPtr source = SdfLayer::FindOrOpen(layerKey);
        if (output == outputs.end() || !source) {
            return errorText(mark, "OpenUSD can't open " + layerKey + " again");
        }
        const SdfLayerRefPtr copy = SdfLayer::CreateAnonymous();
        copy->TransferContent(source);
        const std::filesystem::path folder = std::filesystem::path(output->second).parent_path();

        // Each texture use to its own target first: one file may be colour for one shader and
        // data for another, which a rewrite by path alone can't tell apart.
        std::map<std::pair<std::string, std::string>, std::string> textureUses;
        std::set<std::string> rewritten;
        for (size_t i = 0; i < dependencies.textures.size() && i < targets.size(); ++i) {
            const AssetTexture& texture = dependencies.textures[i];
            if (texture.layer == layerKey && targets[i]) {
                const std::string path = relativeAssetPath(targets[i]->path, folder);
                textureUses[{texture.attribute, texture.assetPath}] = path;
                rewritten.insert(path);
                if (!texture.type.empty()) {  // a MaterialX node: no sourceColorSpace of its own
                    setColorSpaceMetadata(copy, SdfPath(texture.attribute),
                                          targets[i]->colorSpace);
                } else if (SdfPath(texture.attribute).GetNameToken() == kFileInput &&
                           (texture.shader.empty() || texture.shader == kUvTexture.GetString())) {
                    // UsdUVTexture's own input (or a shader the stage doesn't reach, as before)
                    setSourceColorSpace(copy, SdfPath(texture.attribute),
                                        targets[i]->sourceColorSpace);
                }
            }
        }
        mapAttributeAssetPaths(
            copy,
            [&](const SdfPath& attribute, const std::string& path) {
                const auto use = textureUses.find({attribute.GetString(), path});
                return use == textureUses.end() ? path : use->second;
            },
            /*write=*/true);

        // Then layers and other files to their copies; what has none, to where it lies now.
        UsdUtilsModifyAssetPaths(copy, [&](const std::string& path) {
            if (path.empty() || rewritten.count(path) > 0) {
                return path;
            }
            return relocated(path, resolve(source, path), outputs, folder);
        });
        std::filesystem::create_directories(folder);
        const auto temporary = temporaries.find(layerKey);
        const std::string& written =
            temporary == temporaries.end() ? output->second : temporary->second;
        if (!copy->Export(written)) {
            return errorText(mark, "OpenUSD couldn't write " + written);
        }
    }
    for (const std::string& document : dependencies.documents) {
        if (std::string failure = writeDocument(dependencies, document, outputs, targets,
                                                temporaries);
            !failure.empty()) {
            return failure;
        }
    }
    return mark.IsClean() ? "" : errorText(mark, "");
}

std::vector<std::string> checkAsset(const std::string& assetPath) {
    const UsdUtilsCoalescingDiagnosticDelegate quiet;  // what matters is in the result
    const TfErrorMark mark;
    if (!UsdStage::Open(assetPath)) {
        return {errorText(mark, "UsdStage::Open can't open " + assetPath)};
    }
    std::vector<SdfLayerRefPtr> layers;
    std::vector<std::string> assets;
    std::vector<std::string> unresolved;
    UsdUtilsComputeAllDependencies(SdfAssetPath(assetPath), &layers, &assets, &unresolved);
    std::vector<std::string> problems;
    if (!mark.IsClean()) {
        problems.push_back(errorText(mark, ""));
    }
    // The documents by MaterialX's own resolution, whether OpenUSD read them or not.
    AssetDependencies inDocuments;
    walkDocuments(documentsAmong(layers, assets), {}, imageExtensions(), inDocuments);
    if (!inDocuments.error.empty()) {
        problems.push_back(inDocuments.error);
    }
    for (const std::string& path : inDocuments.missing) {
        problems.push_back(path + " resolves to nothing");
    }
    const std::set<std::string> reported = missingInDocuments(inDocuments);
    for (const std::string& path : unresolved) {
        if (reported.count(path) == 0) {
            problems.push_back(path + " resolves to nothing");
        }
    }
    return problems;
}

std::string packageAsset(const std::string& rootLayer, const std::string& usdzPath) {
    const UsdUtilsCoalescingDiagnosticDelegate quiet;  // a file it can't add is an error too
    const TfErrorMark mark;
    const bool packaged = UsdUtilsCreateNewARKitUsdzPackage(SdfAssetPath(rootLayer), usdzPath);
    if (packaged && mark.IsClean()) {
        return "";
    }
    return errorText(mark, "OpenUSD couldn't package " + rootLayer + " as " + usdzPath);
}

std::optional<std::vector<PackageMember>> listPackage(const std::string& packagePath) {
    const TfErrorMark mark;
    const UsdZipFile package = UsdZipFile::Open(packagePath);
    mark.Clear();
    if (!package) {
        return std::nullopt;
    }
    std::vector<PackageMember> members;
    for (auto member = package.begin(); member != package.end(); ++member) {
        const UsdZipFile::FileInfo info = member.GetFileInfo();
        members.push_back({*member, info.compressionMethod == 0 && !info.encrypted});
    }
    return members;
}

std::optional<std::string> readAssetBytes(const std::string& resolvedPath) {
    const TfErrorMark mark;
    const std::shared_ptr<ArAsset> asset = ArGetResolver().OpenAsset(ArResolvedPath(resolvedPath));
    const std::shared_ptr<const char> bytes = asset ? asset->GetBuffer() : nullptr;
    mark.Clear();
    if (!bytes) {
        return std::nullopt;
    }
    return std::string(bytes.get(), asset->GetSize());
}

std::optional<std::pair<int, std::string>> readAssetImageFormat(const std::string& resolvedPath) {
    std::optional<std::string> bytes;
    std::unique_ptr<OIIO::Filesystem::IOMemReader> memory;
    if (ArIsPackageRelativePath(resolvedPath)) {
        bytes = readAssetBytes(resolvedPath);
        if (!bytes) {
            return std::nullopt;
        }
        memory = std::make_unique<OIIO::Filesystem::IOMemReader>(bytes->data(), bytes->size());
    }
    const std::unique_ptr<OIIO::ImageInput> in =
        OIIO::ImageInput::open(innermost(resolvedPath), nullptr, memory.get());
    OIIO::geterror(true);  // a file that no reader takes leaves no text pending
    if (!in) {
        return std::nullopt;
    }
    return std::pair(in->spec().nchannels, std::string(in->spec().format.c_str()));
}

image_processing::Image readAssetImage(const std::string& resolvedPath) {
    std::string failure = "OpenUSD's resolver can't open it";
    if (const std::optional<std::string> bytes = readAssetBytes(resolvedPath)) {
        OIIO::Filesystem::IOMemReader memory(bytes->data(), bytes->size());
        // The reader is chosen by the extension of the name inside the package.
        image_processing::Image image = image_processing::readOpenedImage(
            OIIO::ImageInput::open(innermost(resolvedPath), nullptr, &memory), failure);
        if (image.buffer.initialized()) {
            return image;
        }
    }
    VOREL_LOG(warn, "Couldn't read image {}:\n{}", resolvedPath, failure);
    return {};
}

}  // namespace vorel::usd::assets
