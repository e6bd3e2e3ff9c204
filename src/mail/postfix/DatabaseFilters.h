// Record filters for whole-table rewrites.
//
// A dump of a table is cut into lines by DataStreamFilter, each line goes
// through a record filter, and the kept lines become the table's new text.
// Record filters work on "key value" lines; element filters work on one
// address (or domain) of a key or of a destination list. All filters change
// their argument in place and return false to drop it.
#ifndef MAILTEND_MAIL_POSTFIX_DATABASEFILTERS_H
#define MAILTEND_MAIL_POSTFIX_DATABASEFILTERS_H

#include <cctype>
#include <iostream>
#include <ostream>
#include <string>
#include <vector>

namespace zarnet {
namespace mail {
namespace postfix {
namespace database {

// Cuts streamed bytes into lines; writes each line the filter keeps, with a
// line end, to out. Only one partial line is ever held.
template <class RecordFilterT>
class DataStreamFilter {
public:
    DataStreamFilter(RecordFilterT filter, std::ostream &out) : filter_(filter), out_(out) {}

    void filterChunk(const std::vector<char> &chunk)
    {
        std::vector<char>::const_iterator start = chunk.begin();
        for (std::vector<char>::const_iterator it = start; it != chunk.end(); ++it) {
            if (*it != '\n')
                continue;
            pending_.append(start, it);
            emit();
            start = it + 1;
        }
        pending_.append(start, chunk.end());
    }

    // The dump's last line, when it had no line feed.
    void finish()
    {
        if (!pending_.empty())
            emit();
    }

private:
    void emit()
    {
        if (filter_(pending_))
            out_ << pending_ << '\n';
        pending_.clear();
    }

    RecordFilterT filter_;
    std::ostream &out_;
    std::string pending_;
};

inline bool isKeySep(char c) { return c == ' ' || c == '\t'; }

template <class KeyFilterT, class ValueFilterT>
class KeyValueFilter {
public:
    KeyValueFilter(KeyFilterT keyFilter, ValueFilterT valueFilter)
        : keyFilter_(keyFilter), valueFilter_(valueFilter)
    {
    }

    bool operator()(std::string &line)
    {
        const std::string::size_type sep = line.find_first_of(" \t");
        if (sep == std::string::npos) {
            std::cerr << "invalid key/value '" << line << "'" << std::endl;
            return false;
        }
        std::string key = line.substr(0, sep);
        const std::string::size_type first = line.find_first_not_of(" \t", sep);
        if (first == std::string::npos)
            return false;
        const std::string::size_type last = line.find_last_not_of(" \t");
        std::string value = line.substr(first, last - first + 1);
        if (!keyFilter_(key) || !valueFilter_(value))
            return false;
        line = key + ' ' + value;
        return true;
    }

private:
    KeyFilterT keyFilter_;
    ValueFilterT valueFilter_;
};

// Filters every element of a destination list; a list left empty drops the
// record. Runs of separators count as one, so no empty element is produced.
template <class ElementFilterT>
class ValueListFilter {
public:
    explicit ValueListFilter(ElementFilterT filter) : filter_(filter) {}

    static bool isListSep(char c)
    {
        return c == ',' || std::isspace(static_cast<unsigned char>(c));
    }

    bool operator()(std::string &value)
    {
        std::string result;
        std::string::size_type i = 0;
        const std::string::size_type n = value.size();
        while (i < n) {
            while (i < n && isListSep(value[i]))
                ++i;
            const std::string::size_type start = i;
            while (i < n && !isListSep(value[i]))
                ++i;
            if (start == i)
                break;
            std::string element = value.substr(start, i - start);
            if (!filter_(element))
                continue;
            if (!result.empty())
                result += ", ";
            result += element;
        }
        if (result.empty())
            return false;
        value.swap(result);
        return true;
    }

private:
    ElementFilterT filter_;
};

// The same element filter on the key and on every destination.
template <class ElementFilterT>
class ElementsFilter : public KeyValueFilter<ElementFilterT, ValueListFilter<ElementFilterT>> {
public:
    explicit ElementsFilter(ElementFilterT filter)
        : KeyValueFilter<ElementFilterT, ValueListFilter<ElementFilterT>>(
              filter, ValueListFilter<ElementFilterT>(filter))
    {
    }
};

// An element belongs to domain D when it is D, ends in "@D", or (with
// subdomains) ends in ".D". Byte-wise: callers pass ASCII, lower-case names.
bool belongsToDomain(const std::string &element, const std::string &domain, bool subdomains);

class ReplaceElementFilterRef {
public:
    ReplaceElementFilterRef(const std::string &from, const std::string &to) : from_(from), to_(to)
    {
    }
    // The texts are held by reference: temporaries would dangle.
    ReplaceElementFilterRef(std::string &&, const std::string &) = delete;
    ReplaceElementFilterRef(const std::string &, std::string &&) = delete;
    bool operator()(std::string &element) const;

private:
    const std::string &from_;
    const std::string &to_;
};

class NotInDomainFilter {
public:
    NotInDomainFilter(const std::string &domain, bool subdomains)
        : domain_(domain), subdomains_(subdomains)
    {
    }
    bool operator()(std::string &element) const;

private:
    std::string domain_;
    bool subdomains_;
};

class ReplaceDomainPart {
public:
    ReplaceDomainPart(const std::string &from, const std::string &to, bool subdomains)
        : from_(from), to_(to), subdomains_(subdomains)
    {
    }
    ReplaceDomainPart(std::string &&, const std::string &, bool) = delete;
    ReplaceDomainPart(const std::string &, std::string &&, bool) = delete;
    bool operator()(std::string &element) const;

private:
    const std::string &from_;
    const std::string &to_;
    bool subdomains_;
};

class ReplaceDomainPath {
public:
    ReplaceDomainPath(const std::string &from, const std::string &to) : from_(from), to_(to) {}
    ReplaceDomainPath(std::string &&, const std::string &) = delete;
    ReplaceDomainPath(const std::string &, std::string &&) = delete;
    bool operator()(std::string &value) const;

private:
    const std::string &from_;
    const std::string &to_;
};

} // namespace database
} // namespace postfix
} // namespace mail
} // namespace zarnet

#endif
