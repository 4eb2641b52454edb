#pragma once

// USD assets as a whole: the textures that an asset's layers name, reading them where they lie
// (in a .usdz package too), and writing the asset again to point at converted textures. Built on
// OpenUSD's UsdUtils when the library is built against a real OpenUSD; the batch converter is its
// user, through the Python module. Not part of the library's own functions.

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <vorel/usd/image_processing/image_processing.h>

namespace vorel::usd::assets {

/// One texture as one attribute of one layer, or one input of one MaterialX document, names it.
struct AssetTexture {
    std::string layer;     ///< the layer's resolved path (pkg.usdz[inner] in a package); "" in a
                           ///< document
    std::string document;  ///< the MaterialX document's resolved path; "" in a layer
    std::string attribute;  ///< the attribute spec's path in the layer; the input's name path in
                            ///< the document
    std::string assetPath;  ///< as authored (in a document: with MaterialX's fileprefix and
                            ///< [token]s applied); a tiled set keeps its "<UDIM>" or "<UVTILE>"
    std::string shader;     ///< the id of the layer's shader that reads it ("UsdUVTexture", ...)
    std::string
        sourceColorSpace;  ///< authored beside it on the shader: "raw", "sRGB", "auto" or ""
    std::string type;  ///< the output type of the MaterialX node that reads it ("color3", "float",
                       ///< ...); "" for other shaders
    std::string colorSpace;  ///< a MaterialX colour image's colour space ("lin_rec709" where none
                             ///< is named); "" for data and other shaders
    std::vector<std::string> files;  ///< resolved: the file, or the tiles of a set that exist
};

/// Everything an asset depends on, through sublayers, references, payloads, variants and clips.
struct AssetDependencies {
    std::string error;                ///< OpenUSD's reason when the asset doesn't open; else empty
    std::string rootLayer;            ///< resolved
    std::vector<std::string> layers;  ///< resolved, the root layer first
    std::vector<AssetTexture> textures;
    std::vector<std::string> documents;  ///< MaterialX documents (with their includes), resolved
    std::vector<std::string> files;      ///< other dependencies, resolved
    std::vector<std::string> missing;  ///< "PATH (in LAYER)" for each path that resolves to nothing
    /// Layers and documents that the asset composes (sublayers, references, payloads, includes)
    /// but that the caller's `mayOpen` refused: when there are any, nothing past the layers opened so far is looked at.
    std::vector<std::string> unopened;
};

/// Whether a layer at a resolved path may be opened at all (a stranger's asset may name a device
/// or a file it doesn't own); the rule is the caller's.
using MayOpenLayer = std::function<bool(const std::string& resolvedPath)>;

/// A texture's new file, relative to nothing (an absolute path or a tile pattern), and what its
/// shader is to say of its colour: a UsdUVTexture's sourceColorSpace, a MaterialX image's colour
/// space (in a document, or as the colorSpace of an inline shader's attribute).
struct TextureTarget {
    std::string path;
    std::string sourceColorSpace;
    std::string colorSpace;
};

/// The asset at `assetPath` and all it depends on; `error` says why it doesn't open. With
/// `mayOpen`, every layer that the root layer composes, directly or through others, is asked
/// about before it is opened; see `unopened`.
AssetDependencies findAssetDependencies(const std::string& assetPath,
                                        const MayOpenLayer& mayOpen = {});

/// Writes every layer and document of `dependencies` as it is to lie at `outputs[path]`, its
/// asset paths rewritten: each texture i with a target to `targets[i]` (relative to the written
/// file), other dependencies found in `outputs` to their outputs, the rest to where they resolve
/// now. One with an entry in `temporaries` is written there instead, for the caller to rename
/// into place.
/// Returns OpenUSD's reason on failure, else an empty string.
std::string writeAsset(const AssetDependencies& dependencies,
                       const std::map<std::string, std::string>& outputs,
                       const std::vector<std::optional<TextureTarget>>& targets,
                       const std::map<std::string, std::string>& temporaries = {});

/// One member of a .usdz package as OpenUSD reads it (by its local headers, as the resolver does).
struct PackageMember {
    std::string name;  ///< as stored in the archive, unchecked
    bool stored;       ///< neither compressed nor encrypted: readable through the resolver
};

/// The members of the package at `packagePath`, in archive order (the first is its root layer);
/// nothing when OpenUSD can't read it as a zip archive.
std::optional<std::vector<PackageMember>> listPackage(const std::string& packagePath);

/// What is wrong with a written asset: empty when UsdStage::Open opens it and every asset path of
/// it resolves, in its MaterialX documents too; otherwise OpenUSD's or MaterialX's reason or one
/// line per path that resolves to nothing.
std::vector<std::string> checkAsset(const std::string& assetPath);

/// Packages the asset whose root layer is `rootLayer`, and what it depends on, into `usdzPath`
/// as ARKit takes it: one binary layer (flattened when there are more), then the files.
/// Returns OpenUSD's reason on failure, else an empty string.
std::string packageAsset(const std::string& rootLayer, const std::string& usdzPath);

/// The bytes of a resolved asset path (pkg.usdz[inner] too), through OpenUSD's resolver.
std::optional<std::string> readAssetBytes(const std::string& resolvedPath);

/// The channel count and sample type (OpenImageIO's name, such as "uint8" or "half") of an image
/// at a resolved asset path, from its header alone; nothing when no reader takes it.
std::optional<std::pair<int, std::string>> readAssetImageFormat(const std::string& resolvedPath);

/// An image at a resolved asset path, decoded from its bytes by OpenImageIO's reader for its
/// extension: what readImage gives for the same file on disk, or the empty Image and, at warn,
/// "Couldn't read image {path}:\n{text}".
image_processing::Image readAssetImage(const std::string& resolvedPath);

}  // namespace vorel::usd::assets
