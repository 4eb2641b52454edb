// Bindings of USD assets as a whole (walk, read, rewrite, package) for the batch converter.

#include "usd_assets.h"

#include <pybind11/functional.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include "python_assets.h"
#include "without_gil.h"

namespace py = pybind11;
using namespace py::literals;
namespace assets = vorel::usd::assets;
namespace ipy = vorel::usd::image_processing::python;

namespace vorel::usd::image_processing::python {

void bindUsdAssets(py::module_& m) {
    py::class_<assets::AssetTexture>(m, "AssetTexture",
                                     "One texture as one attribute of one layer names it.")
        .def(py::init<>())
        .def_readwrite("layer", &assets::AssetTexture::layer)
        .def_readwrite("attribute", &assets::AssetTexture::attribute)
        .def_readwrite("assetPath", &assets::AssetTexture::assetPath)
        .def_readwrite("sourceColorSpace", &assets::AssetTexture::sourceColorSpace)
        .def_readwrite("files", &assets::AssetTexture::files);
    py::class_<assets::AssetDependencies>(m, "AssetDependencies",
                                          "What an asset depends on, every path resolved.")
        .def(py::init<>())
        .def_readwrite("error", &assets::AssetDependencies::error)
        .def_readwrite("rootLayer", &assets::AssetDependencies::rootLayer)
        .def_readwrite("layers", &assets::AssetDependencies::layers)
        .def_readwrite("textures", &assets::AssetDependencies::textures)
        .def_readwrite("files", &assets::AssetDependencies::files)
        .def_readwrite("missing", &assets::AssetDependencies::missing)
        .def_readwrite("unopened", &assets::AssetDependencies::unopened);
    m.def("findAssetDependencies", ipy::withoutGil(&assets::findAssetDependencies), "assetPath"_a,
          "mayOpen"_a = assets::MayOpenLayer{},
          "The layers, textures and other files of a USD asset, through sublayers, references, "
          "payloads, variants and clips; `error` says why it doesn't open. mayOpen(path), when "
          "given, is asked before each composed layer is opened; `unopened` lists those refused, "
          "and then nothing more is looked at.");
    m.def(
        "writeAsset",
        [](const assets::AssetDependencies& dependencies,
           const std::map<std::string, std::string>& outputs,
           const std::vector<std::optional<std::pair<std::string, std::string>>>& targets,
           const std::map<std::string, std::string>& temporaries) {
            std::vector<std::optional<assets::TextureTarget>> textureTargets;
            for (const auto& target : targets) {
                textureTargets.push_back(
                    target ? std::optional(assets::TextureTarget{target->first, target->second})
                           : std::nullopt);
            }
            return ipy::callWithoutGil([&] {
                return assets::writeAsset(dependencies, outputs, textureTargets, temporaries);
            });
        },
        "dependencies"_a, "outputs"_a, "targets"_a,
        "temporaries"_a = std::map<std::string, std::string>{},
        "Writes each layer as it is to lie at outputs[layer] (exported to temporaries[layer] "
        "where given), texture i pointing at targets[i] = (path, sourceColorSpace) unless None, "
        "other dependencies at their outputs; OpenUSD's reason on failure, else ''.");
    m.def(
        "listPackage",
        [](const std::string& packagePath)
            -> std::optional<std::vector<std::pair<std::string, bool>>> {
            const auto members =
                ipy::callWithoutGil([&] { return assets::listPackage(packagePath); });
            if (!members) {
                return std::nullopt;
            }
            std::vector<std::pair<std::string, bool>> listed;
            for (const assets::PackageMember& member : *members) {
                listed.emplace_back(member.name, member.stored);
            }
            return listed;
        },
        "packagePath"_a,
        "(name, stored) of each member of a .usdz package as OpenUSD reads it, the root layer "
        "first; stored is false for a compressed or encrypted member; None for no zip archive.");
    m.def("checkAsset", ipy::withoutGil(&assets::checkAsset), "assetPath"_a,
          "What is wrong with an asset: [] when UsdStage::Open opens it and every path resolves.");
    m.def(
        "packageAsset", ipy::withoutGil(&assets::packageAsset), "rootLayer"_a, "usdzPath"_a,
        "Packages an asset and its dependencies as a .usdz; OpenUSD's reason on failure, else ''.");
    m.def(
        "readAssetBytes",
        [](const std::string& resolvedPath) -> std::optional<py::bytes> {
            const auto bytes =
                ipy::callWithoutGil([&] { return assets::readAssetBytes(resolvedPath); });
            return bytes ? std::optional(py::bytes(*bytes)) : std::nullopt;
        },
        "resolvedPath"_a, "The bytes at a resolved asset path (pkg.usdz[inner] too), or None.");
    m.def("readAssetImageFormat", ipy::withoutGil(&assets::readAssetImageFormat), "resolvedPath"_a,
          "(channels, sample type) of the image at a resolved asset path, from its header; or "
          "None.");
    m.def("readAssetImage", ipy::withoutGil(&assets::readAssetImage), "resolvedPath"_a,
          "The image at a resolved asset path (pkg.usdz[inner] too), as readImage gives it for "
          "the same file on disk.");
}

}  // namespace vorel::usd::image_processing::python
