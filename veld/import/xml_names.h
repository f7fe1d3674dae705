// Names in a data-model document: their prefixes, and their blanks.
#pragma once

#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace veld
{

/// What the namespaces of all versions of the documents begin with.
inline constexpr std::string_view document_namespace = "urn:broadband-forum-org:cwmp:datamodel-";

/// A text as a token of XML Schema: without blanks around it, with one blank for each run of them inside.
std::string xml_token(std::string_view text);

/// A text of several lines without the indentation that they share, and without the empty lines around it.
std::string xml_unindented(std::string_view text);

/// Which prefix stands for which namespace where the parser is.
class xml_names
{
public:
    /// An element begins; `attributes` holds names and values in turn, up to a null.
    void open(const char **attributes);
    void close();

    /// The namespace of an element's name; nothing when its prefix, or a default, is not declared.
    std::optional<std::string_view> space_of(std::string_view name) const;
    /// The name without its prefix; nothing for an element of another namespace than the document's.
    std::optional<std::string_view> local_name(std::string_view name) const;
    /// The prefix of a name when it is not declared, the first time that it is asked for.
    std::optional<std::string> undeclared(std::string_view name);

private:
    struct declaration {
        size_t depth;
        std::string prefix;
        std::string space;
    };
    const declaration *find(std::string_view prefix) const;

    size_t depth_ = 0;
    std::vector<declaration> declared_;
    std::set<std::string, std::less<>> reported_;
};

} // namespace veld
