// Bindings of USD assets as a whole (walk, read, rewrite, package) for the batch converter.

#include "usd_assets.h"

#include <tuple>

#include <pybind11/functional.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include "materialx_documents.h"
#include "python_assets.h"
#include "without_gil.h"

namespace py = pybind11;
using namespace py::literals;
namespace assets = vorel::usd::assets;
namespace ipy = vorel::usd::image_processing::python;

namespace {

// Each type's fields, named once: its Python properties and its JSON form (the dicts, lists and
// strings in which the batch's converter process and its client pass it) both come from here.
template <class T>
struct FieldsOf;

template <class T, class Member>
constexpr std::pair<const char*, Member T::*> field(const char* name, Member T::*member) {
    return {name, member};
}

template <>
struct FieldsOf<assets::AssetTexture> {
    using T = assets::AssetTexture;
    static constexpr auto value = std::make_tuple(
        field("layer", &T::layer), field("document", &T::document),
        field("attribute", &T::attribute), field("assetPath", &T::assetPath),
        field("shader", &T::shader), field("sourceColorSpace", &T::sourceColorSpace),
        field("type", &T::type), field("colorSpace", &T::colorSpace), field("files", &T::files));
};

template <>
struct FieldsOf<assets::AssetDependencies> {
    using T = assets::AssetDependencies;
    static constexpr auto value = std::make_tuple(
        field("error", &T::error), field("rootLayer", &T::rootLayer), field("layers", &T::layers),
        field("textures", &T::textures), field("documents", &T::documents),
        field("files", &T::files), field("missing", &T::missing), field("unopened", &T::unopened));
};

template <>
struct FieldsOf<assets::TextureTarget> {
    using T = assets::TextureTarget;
    static constexpr auto value =
        std::make_tuple(field("path", &T::path), field("sourceColorSpace", &T::sourceColorSpace),
                        field("colorSpace", &T::colorSpace));
};

template <class T, class = decltype(FieldsOf<T>::value)>
py::object toJson(const T& value);
template <class T, class = decltype(FieldsOf<T>::value)>
void fromJson(const py::handle& json, T& value);

py::object toJson(const std::string& text) { return py::str(text); }

template <class T>
py::object toJson(const std::vector<T>& items) {
    py::list list;
    for (const T& item : items) {
        list.append(toJson(item));
    }
    return list;
}

template <class T, class>
py::object toJson(const T& value) {
    py::dict dict;
    std::apply([&](const auto&... f) { ((dict[f.first] = toJson(value.*(f.second))), ...); },
               FieldsOf<T>::value);
    return dict;
}

void fromJson(const py::handle& json, std::string& text) { text = json.cast<std::string>(); }

template <class T>
void fromJson(const py::handle& json, std::vector<T>& items) {
    items.clear();
    for (const py::handle item : json.cast<py::list>()) {
        fromJson(item, items.emplace_back());
    }
}

/// Fields missing from `json` keep their defaults; keys that are no field are left alone.
template <class T, class>
void fromJson(const py::handle& json, T& value) {
    const py::dict dict = json.cast<py::dict>();
    std::apply(
        [&](const auto&... f) {
            ((dict.contains(f.first) ? fromJson(dict[f.first], value.*(f.second)) : void()), ...);
        },
        FieldsOf<T>::value);
}

template <class T>
py::class_<T> bindFields(py::module_& m, const char* name, const char* doc) {
    py::class_<T> type(m, name, doc);
    type.def(py::init<>());
    std::apply([&](const auto&... f) { (type.def_readwrite(f.first, f.second), ...); },
               FieldsOf<T>::value);
    type.def("toJson", [](const T& value) { return toJson(value); },
             "Its JSON form: a dict of strings and lists, by field name, as json.dumps takes it.");
    type.def_static(
        "fromJson",
        [](const py::dict& json) {
            T value;
            fromJson(json, value);
            return value;
        },
        "json"_a, "The value of a JSON form that toJson gave; other keys are left alone.");
    return type;
}

}  // namespace

namespace vorel::usd::image_processing::python {

void bindUsdAssets(py::module_& m) {
    bindFields<assets::AssetTexture>(
        m, "AssetTexture",
        "One texture as one attribute of one layer, or one input of one MaterialX document, "
        "names it.");
    bindFields<assets::AssetDependencies>(m, "AssetDependencies",
                                          "What an asset depends on, every path resolved.");
    bindFields<assets::TextureTarget>(
        m, "TextureTarget",
        "A texture's converted file, and what its shader is to say of its colour.");
    m.attr("materialxAvailable") = assets::materialx::materialxAvailable();
    m.def("findAssetDependencies", ipy::withoutGil(&assets::findAssetDependencies), "assetPath"_a,
          "mayOpen"_a = assets::MayOpenLayer{},
          "The layers, textures and other files of a USD asset, through sublayers, references, "
          "payloads, variants and clips; `error` says why it doesn't open. mayOpen(path), when "
          "given, is asked before each composed layer is opened; `unopened` lists those refused, "
          "and then nothing more is looked at.");
    m.def("writeAsset", ipy::withoutGil(&assets::writeAsset), "dependencies"_a, "outputs"_a,
          "targets"_a, "temporaries"_a = std::map<std::string, std::string>{},
          "Writes each layer and MaterialX document as it is to lie at outputs[path] (written to "
          "temporaries[path] where given), texture i pointing at targets[i] unless None, other "
          "dependencies at their outputs; OpenUSD's or MaterialX's reason on failure, else ''.");
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
