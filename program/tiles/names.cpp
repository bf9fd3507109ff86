#include "program/tiles/names.h"

#include "program/system/platform.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstddef>
#include <map>

namespace Tavrin::SplatProgram {
namespace {

namespace fs = std::filesystem;

// The last `count` names of a path.
std::string ending(const fs::path& path, std::size_t count) {
    const std::vector<fs::path> parts(path.begin(), path.end());
    fs::path end;
    for (std::size_t i = parts.size() - std::min(count, parts.size()); i < parts.size(); ++i) {
        end /= parts[i];
    }
    const std::u8string text = end.generic_u8string();
    return {text.begin(), text.end()};
}

// The path escaped for a URL. Slashes and unreserved characters stay.
std::string escaped(std::string_view path) {
    constexpr std::string_view plain =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._~/!$&'()*+,;=@";
    std::string text;
    for (const char byte : path) {
        if (plain.find(byte) != std::string_view::npos) {
            text += byte;
        } else {
            text += fmt::format("%{:02X}", static_cast<unsigned char>(byte));
        }
    }
    return text;
}

// The offset of the path in an address: after the host of a URL, 0 for a path.
std::size_t pathStart(std::string_view base) {
    const std::size_t scheme = base.find("://");
    if (scheme == std::string_view::npos) {
        return 0;
    }
    return std::min(base.find('/', scheme + 3), base.size());
}

} // namespace

std::vector<std::string> idsOf(const std::vector<fs::path>& folders) {
    std::vector<std::size_t> counts(folders.size(), 1);
    for (;;) {
        std::map<std::string, std::vector<std::size_t>> holders;
        for (std::size_t i = 0; i < folders.size(); ++i) {
            holders[ending(folders[i], counts[i])].push_back(i);
        }
        bool isUnique = true;
        for (const auto& [id, places] : holders) {
            for (const std::size_t place : places) {
                const auto names = std::distance(folders[place].begin(), folders[place].end());
                const bool hasMore = counts[place] < static_cast<std::size_t>(names);
                if (places.size() > 1 && hasMore) {
                    ++counts[place];
                    isUnique = false;
                }
            }
        }
        if (isUnique) {
            break;
        }
    }
    std::vector<std::string> ids;
    for (std::size_t i = 0; i < folders.size(); ++i) {
        ids.push_back(ending(folders[i], counts[i]));
    }
    return ids;
}

std::string relativeReference(const fs::path& file, const fs::path& folder) {
    const std::u8string text = file.lexically_relative(folder).generic_u8string();
    const std::string reference = escaped(std::string(text.begin(), text.end()));
    // Without "./" the part before a colon in a name would be read as a scheme.
    return reference.starts_with("../") ? reference : "./" + reference;
}

std::string checkBase(std::string_view base) {
    const std::size_t scheme = base.find("://");
    const bool isUrl = scheme != std::string_view::npos && scheme > 0 && base.size() > scheme + 3;
    const bool isPlain = base.find_first_of("?#\" <>") == std::string_view::npos;
    return (isUrl || base.starts_with('/')) && isPlain
               ? ""
               : fmt::format("{} is not the address of a folder: write it like https://example.org/city",
                             base);
}

std::optional<std::string> referenceAt(std::string_view base, std::string_view reference) {
    const std::size_t start = pathStart(base);
    while (base.size() > start && base.ends_with('/')) {
        base.remove_suffix(1);
    }
    for (;;) {
        if (reference.starts_with("./")) {
            reference.remove_prefix(2);
        } else if (reference.starts_with("../")) {
            reference.remove_prefix(3);
            const std::size_t slash = base.rfind('/');
            if (base.size() == start || slash == std::string_view::npos || slash < start) {
                return std::nullopt;
            }
            base = base.substr(0, slash);
        } else {
            return std::string(base) + "/" + std::string(reference);
        }
    }
}

} // namespace Tavrin::SplatProgram
