#pragma once

#include <QByteArray>

/// Where in the HTML a command stands that puts a text out, and so how the text has to be escaped.
enum class HtmlPlace {
    Nowhere, ///< Nothing is put out here.
    Text,
    PlainText, ///< In <title> and <textarea>, which have no comments.
    Attribute, ///< In a quoted value.
    UrlStart, ///< At the start of a quoted URL, where the text could bring a scheme.
};

/// Follows the literal text of a page as a browser's tokenizer does, as far as it takes to know where a command stands.
///
/// The functions that answer a text say why the page is refused; null when it is not. The texts end up in the log.
class HtmlContext {
public:
    const char* feed(char c);
    /// A command that puts out a text stands here.
    const char* output(HtmlPlace* place);
    /// Any other command stands here.
    const char* control();
    /// Whether two branches that end in these contexts can go on in the same way. If so, this becomes what holds
    /// after either.
    bool merge(const HtmlContext& other);
    bool isText() const { return m_state == Text; }

private:
    enum State {
        Text,
        Plain, ///< <title>, <textarea>
        Raw, ///< <script>, <style> and their kind
        TagOpen, ///< After "<".
        EndTagOpen, ///< After "</".
        Declaration, ///< After "<!".
        DeclarationDash, ///< After "<!-".
        Comment,
        BogusComment, ///< Up to the next ">".
        TagName,
        BeforeAttribute,
        AttributeName,
        AfterAttributeName,
        BeforeValue,
        QuotedValue,
        UnquotedValue,
        AfterAttribute, ///< A blank has to follow, "/" or the end of the tag.
    };
    /// How much of a URL is there already.
    enum Url {
        NoUrl,
        UrlEmpty,
        UrlScheme, ///< Characters that a scheme may have.
        UrlFromOutput, ///< A text that was put out, and perhaps such characters.
        UrlSafe, ///< The scheme is decided, and harmless.
        UrlHarmful, ///< It is one that may run a script.
    };

    const char* feedTag(char c);
    const char* feedText(char c);
    const char* feedRaw(char c);
    void feedComment(char c);
    void beginTag(bool end, char c);
    void beginAttribute(char c);
    void beginValue(State state);
    const char* feedUrl(char c);
    const char* endTag();
    bool isInTag() const { return m_state == BeforeAttribute || m_state == AfterAttribute; }
    bool takesNoOutput() const;
    const char* whereItIs() const;

    State m_state = Text;
    Url m_url = NoUrl;
    bool m_isEndTag = false;
    int m_svgDepth = 0; ///< Inside, no element is raw text to a browser.
    int m_mathDepth = 0;
    char m_quote = 0;
    int m_dashes = 0; ///< At the end of a comment so far.
    bool m_commentBegins = false;
    bool m_commentBang = false; ///< "--!"
    QByteArray m_tag; ///< In lower case, as the next two.
    QByteArray m_attribute;
    QByteArray m_tail; ///< What could be the end tag of raw text; in a URL, what could be its scheme.
};
