#include "HtmlContext.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace {

bool isBlank(char c)
{
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f';
}

char lower(char c)
{
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c + ('a' - 'A')) : c;
}

bool isLetter(char c)
{
    return lower(c) >= 'a' && lower(c) <= 'z';
}

template <size_t N> bool isOneOf(const QByteArray& name, const char* const (&names)[N])
{
    return std::any_of(std::begin(names), std::end(names), [&name](const char* other) { return name == other; });
}

// Some are raw text only for browsers that run scripts; nobody knows here which one it is.
bool isRaw(const QByteArray& tag)
{
    static const char* const tags[] = { "script", "style", "xmp", "iframe", "noembed", "noframes", "noscript",
        "plaintext" };
    return isOneOf(tag, tags);
}

// Elements whose attributes name code, or change what other elements mean.
bool isDangerous(const QByteArray& tag)
{
    static const char* const tags[] = { "script", "style", "link", "base", "meta", "object", "embed", "applet", "param",
        "set", "animate", "animatemotion", "animatetransform" };
    return isOneOf(tag, tags);
}

bool isUrl(const QByteArray& attribute)
{
    static const char* const attributes[] = { "href", "src", "action", "formaction", "poster", "data", "cite",
        "background", "longdesc", "manifest", "ping", "xlink:href", "codebase", "classid", "archive", "profile",
        "usemap", "icon", "lowsrc", "dynsrc" };
    return isOneOf(attribute, attributes);
}

bool isHarmlessScheme(const QByteArray& scheme)
{
    static const char* const schemes[] = { "http", "https", "mailto", "tel" };
    return isOneOf(scheme, schemes);
}

} // namespace

const char* HtmlContext::feed(char c)
{
    switch (m_state) {
    case Text:
    case TagOpen:
    case EndTagOpen:
    case Declaration:
    case DeclarationDash:
        return feedText(c);
    case Plain:
    case Raw:
        return feedRaw(c);
    case Comment:
        feedComment(c);
        return nullptr;
    case BogusComment:
        if (c == '>')
            m_state = Text;
        return nullptr;
    default:
        return feedTag(c);
    }
}

const char* HtmlContext::feedText(char c)
{
    const State before = m_state;
    m_state = c == '<' ? TagOpen : Text;
    if (before == Text)
        return nullptr;
    if (before == Declaration && c == '[')
        return "a CDATA section";
    if ((before == TagOpen || before == EndTagOpen) && isLetter(c)) {
        beginTag(before == EndTagOpen, c);
    } else if (before == TagOpen) {
        if (c == '/')
            m_state = EndTagOpen;
        else if (c == '!')
            m_state = Declaration;
        else if (c == '?')
            m_state = BogusComment;
    } else if (before == Declaration && c == '-') {
        m_state = DeclarationDash;
    } else if (before == DeclarationDash && c == '-') {
        m_state = Comment;
        m_dashes = 0;
        m_commentBegins = true;
        m_commentBang = false;
    } else {
        m_state = c == '>' ? Text : BogusComment;
    }
    return nullptr;
}

// "-->", "--!>", and at the start also ">" and "->".
void HtmlContext::feedComment(char c)
{
    if (c == '>' && (m_dashes >= 2 || m_commentBegins)) {
        m_state = Text;
        return;
    }
    m_commentBegins = m_commentBegins && c == '-' && m_dashes == 0;
    const bool bang = c == '!' && m_dashes >= 2 && !m_commentBang;
    if (c == '-')
        m_dashes = m_commentBang ? 1 : m_dashes + 1;
    else if (!bang)
        m_dashes = 0;
    m_commentBang = bang;
}

// Up to the end tag of the same name.
const char* HtmlContext::feedRaw(char c)
{
    if (m_tail.isEmpty() && c != '<')
        return nullptr;
    const QByteArray end = "</" + m_tag;
    if (m_tail == end && (isBlank(c) || c == '/' || c == '>')) {
        m_isEndTag = true;
        m_state = BeforeAttribute;
        return c == '>' ? endTag() : nullptr;
    }
    m_tail += lower(c);
    if (m_tail.size() > end.size() || !end.startsWith(m_tail))
        m_tail = c == '<' ? "<" : "";
    return nullptr;
}

void HtmlContext::beginTag(bool end, char c)
{
    m_state = TagName;
    m_isEndTag = end;
    m_tag = QByteArray(1, lower(c));
}

void HtmlContext::beginAttribute(char c)
{
    m_state = AttributeName;
    m_attribute = QByteArray(1, lower(c));
}

void HtmlContext::beginValue(State state)
{
    m_state = state;
    m_url = isUrl(m_attribute) ? UrlEmpty : NoUrl;
    m_tail.clear();
}

const char* HtmlContext::endTag()
{
    m_state = Text;
    m_tail.clear();
    for (const auto& foreign : { std::make_pair("svg", &m_svgDepth), std::make_pair("math", &m_mathDepth) }) {
        if (m_tag == foreign.first)
            *foreign.second = std::max(0, *foreign.second + (m_isEndTag ? -1 : 1));
    }
    if (m_isEndTag)
        return nullptr;
    if (isRaw(m_tag))
        m_state = Raw;
    else if (m_tag == "title" || m_tag == "textarea")
        m_state = Plain;
    // There, browsers would find tags in what is text elsewhere.
    const bool isForeign = m_svgDepth > 0 || m_mathDepth > 0;
    return m_state != Text && isForeign ? "an element of this name inside <svg> or <math>" : nullptr;
}

const char* HtmlContext::feedTag(char c)
{
    if (m_state == QuotedValue) {
        if (c != m_quote)
            return feedUrl(c);
        m_state = AfterAttribute;
    } else if (m_state == BeforeValue && (c == '"' || c == '\'')) {
        m_quote = c;
        beginValue(QuotedValue);
    } else if (c == '>') {
        return endTag();
    } else if (isBlank(c)) {
        if (m_state == AttributeName)
            m_state = AfterAttributeName;
        else if (m_state != AfterAttributeName && m_state != BeforeValue)
            m_state = BeforeAttribute;
    } else if (m_state == BeforeValue) {
        beginValue(UnquotedValue);
    } else if (m_state == UnquotedValue) {
        return nullptr;
    } else if (c == '/') {
        m_state = BeforeAttribute;
    } else if (m_state == TagName) {
        m_tag += lower(c);
    } else if (c == '=') {
        if (m_state != AttributeName && m_state != AfterAttributeName)
            return "an attribute without a name";
        m_state = BeforeValue;
    } else if (m_state == AttributeName) {
        m_attribute += lower(c);
    } else if (m_state == AfterAttribute) {
        return "a blank is missing before this attribute";
    } else {
        beginAttribute(c);
    }
    return nullptr;
}

// What browsers drop from a URL is no part of a scheme either.
const char* HtmlContext::feedUrl(char c)
{
    if (m_url == NoUrl || m_url >= UrlSafe || static_cast<unsigned char>(c) <= ' ')
        return nullptr;
    if (c == '/' || c == '?' || c == '#') {
        m_url = UrlSafe;
    } else if (m_url == UrlFromOutput) {
        return c == ':' ? "a \":\" that could make a scheme of the text before it" : nullptr;
    } else if (c == ':') {
        m_url = isHarmlessScheme(m_tail) ? UrlSafe : UrlHarmful;
    } else {
        m_url = UrlScheme;
        m_tail += lower(c);
    }
    return nullptr;
}

bool HtmlContext::takesNoOutput() const
{
    return isDangerous(m_tag) || m_attribute.startsWith("on") || m_attribute == "style" || m_attribute == "srcdoc"
        || m_attribute == "http-equiv";
}

const char* HtmlContext::whereItIs() const
{
    switch (m_state) {
    case Comment:
    case BogusComment:
    case Declaration:
    case DeclarationDash:
        return "inside a comment or declaration";
    case Raw:
        return "inside a script, a style sheet or other raw text";
    case BeforeValue:
    case UnquotedValue:
        return "in an attribute value without quotes";
    default:
        return "inside a tag";
    }
}

const char* HtmlContext::output(HtmlPlace* place)
{
    if (m_state == Text || (m_state == Plain && m_tail.isEmpty())) {
        *place = m_state == Text ? HtmlPlace::Text : HtmlPlace::PlainText;
        return nullptr;
    }
    if (m_state != QuotedValue)
        return whereItIs();
    if (takesNoOutput())
        return "in an attribute whose text could act";
    if (m_url == UrlHarmful)
        return "in a URL that could act";
    if (m_url == UrlScheme || m_url == UrlFromOutput)
        return "where it could become part of a URL's scheme";
    *place = m_url == UrlEmpty ? HtmlPlace::UrlStart : HtmlPlace::Attribute;
    if (m_url == UrlEmpty)
        m_url = UrlFromOutput;
    return nullptr;
}

const char* HtmlContext::control()
{
    switch (m_state) {
    case Text:
    case BeforeAttribute:
    case AfterAttribute:
    case QuotedValue:
        return nullptr;
    case Plain:
    case Raw:
        return m_tail.isEmpty() ? nullptr : whereItIs();
    case AfterAttributeName:
        m_state = BeforeAttribute;
        return nullptr;
    case TagName:
    case AttributeName:
        // Or what follows would go on with the name, in a browser.
        m_state = AfterAttribute;
        return nullptr;
    default:
        return whereItIs();
    }
}

bool HtmlContext::merge(const HtmlContext& other)
{
    const bool sameState = m_state == other.m_state || (isInTag() && other.isInTag());
    if (!sameState)
        return false;
    m_svgDepth = std::max(m_svgDepth, other.m_svgDepth);
    m_mathDepth = std::max(m_mathDepth, other.m_mathDepth);
    if (m_state == Text)
        return true;
    if (m_tag != other.m_tag || m_isEndTag != other.m_isEndTag)
        return false;
    if (isInTag()) {
        m_state = m_state == other.m_state ? m_state : AfterAttribute;
        return true;
    }
    if (m_state != QuotedValue)
        return m_tail == other.m_tail;
    if (m_attribute != other.m_attribute || m_quote != other.m_quote)
        return false;
    if (m_url != other.m_url || m_tail != other.m_tail)
        m_url = m_url == UrlHarmful || other.m_url == UrlHarmful ? UrlHarmful : UrlFromOutput;
    return true;
}
