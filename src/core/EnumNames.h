#pragma once

#include <QList>
#include <QString>
#include <QStringView>
#include <concepts>
#include <optional>
#include <span>
#include <type_traits>

// One case of an enumeration with the name it is stored and logged under, and, for the choices
// a menu offers, the name the user sees.
template <typename E> struct NamedCase {
    E value;
    const char *name;
    const char *displayName = nullptr;
};

// Every named enumeration declares `std::span<const NamedCase<E>> namedCases(E)` beside itself,
// found by argument-dependent lookup, listing all its cases in their menu order.
template <typename E>
concept NamedEnum = std::is_enum_v<E> && requires(E value) {
    { namedCases(value) } -> std::convertible_to<std::span<const NamedCase<E>>>;
};

template <NamedEnum E> const NamedCase<E> *findCase(E value) {
    for (const NamedCase<E> &candidate : namedCases(E{}))
        if (candidate.value == value)
            return &candidate;
    return nullptr;
}

template <NamedEnum E> QString toName(E value) {
    const NamedCase<E> *found = findCase(value);
    return found ? QString::fromLatin1(found->name) : QString();
}

template <NamedEnum E> std::optional<E> fromName(QStringView name) {
    for (const NamedCase<E> &candidate : namedCases(E{}))
        if (name == QLatin1String(candidate.name))
            return candidate.value;
    return std::nullopt;
}

template <NamedEnum E> QString displayName(E value) {
    const NamedCase<E> *found = findCase(value);
    return found && found->displayName ? QString::fromUtf8(found->displayName) : QString();
}

template <NamedEnum E> QList<E> allCases() {
    QList<E> cases;
    for (const NamedCase<E> &candidate : namedCases(E{}))
        cases.append(candidate.value);
    return cases;
}
