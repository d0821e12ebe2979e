// Defining a host service's default: the code lives under the strong name
// hostDefault<Name>, and host<Name> is a weak alias of it. A definition of
// host<Name> in the executable (or in a test linked with the static archive)
// replaces the alias, while the default stays callable by its own name.
#ifndef KORVEL_HOST_DEFAULTS_H_
#define KORVEL_HOST_DEFAULTS_H_

// The arguments are names, not expressions: they take no parentheses.
// NOLINTBEGIN(bugprone-macro-parentheses)
#define KORVEL_WEAK_DEFAULT(name, defaultName) \
  extern "C" __typeof__(defaultName) name __attribute__((weak, alias(#defaultName)))
// NOLINTEND(bugprone-macro-parentheses)

#endif  // KORVEL_HOST_DEFAULTS_H_
