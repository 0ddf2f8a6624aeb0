/*
 * Strings that hold a NUL, kept whole (wire_nul.h). The strings of the
 * text, keys and values alike, appear in the tree's order: an object's
 * members in turn, each key before its value. So the n-th string token of
 * the text is the n-th string met by a walk of the tree in that order.
 */
#include "wire_nul.h"

#include <cstring>
#include <vector>

namespace sf_wire {

namespace {

/* One string token of the text: where it lies (quotes included) and whether it holds a NUL escape. */
struct Token {
    const char *start;
    size_t len;
    bool nul;
};

std::vector<Token> string_tokens(const char *text, size_t len)
{
    std::vector<Token> tokens;
    for (size_t i = 0; i < len; ++i) {
        if (text[i] != '"') {
            continue;
        }
        Token token{text + i, 0, false};
        size_t j = i + 1;
        for (; j < len && text[j] != '"'; ++j) {
            if (text[j] != '\\' || j + 1 >= len) {
                continue;
            }
            if (text[j + 1] == 'u' && j + 5 < len && std::memcmp(text + j + 2, "0000", 4) == 0) {
                token.nul = true;
            }
            ++j; /* the escaped character, so an escaped quote does not end the string */
        }
        token.len = j + 1 - i;
        tokens.push_back(token);
        i = j;
    }
    return tokens;
}

/* A copy of the token's bytes in cJSON's allocator, without its quotes when bare. */
char *copy_of(const Token &token, bool bare)
{
    const size_t skip = bare ? 1 : 0;
    const size_t used = token.len - 2 * skip;
    char *copy = static_cast<char *>(cJSON_malloc(used + 1));
    if (copy != nullptr) {
        std::memcpy(copy, token.start + skip, used);
        copy[used] = '\0';
    }
    return copy;
}

class Rewriter {
public:
    explicit Rewriter(std::vector<Token> tokens) : tokens_(std::move(tokens)) {}

    void value(cJSON *node)
    {
        if (cJSON_IsString(node)) {
            const Token *token = next();
            char *raw = token != nullptr && token->nul ? copy_of(*token, false) : nullptr;
            if (raw != nullptr) {
                cJSON_free(node->valuestring);
                node->valuestring = raw;
                node->type = cJSON_Raw;
                ++rewritten_;
            }
            return;
        }
        const bool object = cJSON_IsObject(node);
        if (!object && !cJSON_IsArray(node)) {
            return;
        }
        for (cJSON *child = node->child; child != nullptr; child = child->next) {
            if (object) {
                key(child);
            }
            value(child);
        }
    }

    size_t rewritten() const { return rewritten_; }

private:
    const Token *next() { return at_ < tokens_.size() ? &tokens_[at_++] : nullptr; }

    void key(cJSON *member)
    {
        const Token *token = next();
        if (token == nullptr || !token->nul || (member->type & cJSON_StringIsConst) != 0) {
            return;
        }
        char *text = copy_of(*token, true);
        if (text != nullptr) {
            cJSON_free(member->string);
            member->string = text;
            ++rewritten_;
        }
    }

    std::vector<Token> tokens_;
    size_t at_ = 0;
    size_t rewritten_ = 0;
};

bool has_nul_escape(const char *text, size_t len)
{
    for (size_t i = 0; i + 5 < len; ++i) {
        if (text[i] == '\\' && text[i + 1] == 'u' && std::memcmp(text + i + 2, "0000", 4) == 0) {
            return true;
        }
    }
    return false;
}

} // namespace

size_t keep_nul_strings_whole(const char *text, size_t len, cJSON *doc)
{
    if (doc == nullptr || text == nullptr || !has_nul_escape(text, len)) {
        return 0;
    }
    Rewriter rewriter(string_tokens(text, len));
    rewriter.value(doc);
    return rewriter.rewritten();
}

} // namespace sf_wire
