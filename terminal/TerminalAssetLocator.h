// Finds the asset files of the terminal document (xterm.js, its addons and its
// style sheet): the packaged copy under "Terminal/" in the resource directory
// first, then a source checkout's web/node_modules under HARBORLATTICE_ROOT.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace hl {

class TerminalAssetLocator {
  public:
    // The resource directory of the running executable (see `resourceDirectory`).
    static std::optional<std::filesystem::path> mainResourceDirectory();

    // The resource directory for an executable in `executableDirectory`: "resources/"
    // beside it in a build tree, else "../share/harborlattice" of an installed
    // prefix, else none.
    static std::optional<std::filesystem::path> resourceDirectory(
        const std::filesystem::path& executableDirectory);

    // Where an asset lies under "web/node_modules/"; a name the table does not
    // know stands for itself.
    static std::string_view sourcePath(std::string_view name);

    explicit TerminalAssetLocator(
        std::optional<std::filesystem::path> resourceDirectory = mainResourceDirectory());

    // The whole asset as UTF-8 text. Throws std::system_error: the read's own
    // error, illegal_byte_sequence for text that is no UTF-8, or
    // no_such_file_or_directory when neither location holds the asset.
    std::string contents(std::string_view name) const;

  private:
    std::optional<std::filesystem::path> resourceDirectory_;
};

}  // namespace hl
