#include "records/FileKind.h"

#include <array>
#include <string_view>
#include <vector>

#include <utf8proc.h>

namespace {

struct KindList {
    FileKind kind;
    std::vector<std::string_view> extensions;
};

// Searched in this order; no extension is in two lists.
const std::array<KindList, 8> kKindTable{{
    {FileKindArchive, {"7z", "gz", "pkg", "rar", "tar", "zip", "zipx"}},
    {FileKindAudio,
     {"aac", "aif", "aiff", "au", "flac", "iff", "mid", "m4a", "m4p", "mp3", "mpa", "ogg", "wav", "wma"}},
    {FileKindCode, {"c", "class", "cpp", "cs", "dtd", "h", "java", "m", "pl", "py", "vb", "vbs"}},
    {FileKindDocument,
     {"csv", "doc", "docx", "log", "pdf", "pps", "ppt", "pptx", "rtf", "txt", "wps", "xls", "xlsx", "xml"}},
    {FileKindImage, {"png", "gif", "bmp", "psd"}},
    {FileKindPhoto, {"jpg", "jpeg", "tif", "tiff"}},
    {FileKindVideo, {"3gp", "m4v", "avi", "mpg"}},
    {FileKindWeb, {"asp", "aspx", "cgi", "css", "htm", "html", "js", "jsp", "php", "rss", "shtml", "xhtml"}},
}};

// Unicode lower-casing, kept only when the result is plain ASCII: every listed
// extension is ASCII, so anything else cannot match. Non-ASCII letters still
// count (the Kelvin sign lower-cases to "k"), while U+0130 lower-cases to "i"
// plus a combining dot and so never matches.
bool asciiLowercase(const std::string& text, std::string& out)
{
    const auto* bytes = reinterpret_cast<const utf8proc_uint8_t*>(text.data());
    utf8proc_ssize_t left = static_cast<utf8proc_ssize_t>(text.size());
    while (left > 0) {
        utf8proc_int32_t cp = 0;
        utf8proc_ssize_t used = utf8proc_iterate(bytes, left, &cp);
        if (used <= 0 || cp == 0x130)
            return false;
        utf8proc_int32_t lower = utf8proc_tolower(cp);
        if (lower >= 0x80)
            return false;
        out += static_cast<char>(lower);
        bytes += used;
        left -= used;
    }
    return true;
}

} // namespace

RecordField::Kind fileKindForExtension(const std::string& extension)
{
    std::string lower;
    if (extension.empty() || !asciiLowercase(extension, lower))
        return FileKindOther;
    for (const auto& [kind, extensions] : kKindTable) {
        for (std::string_view candidate : extensions) {
            if (candidate == lower)
                return kind;
        }
    }
    return FileKindOther;
}
