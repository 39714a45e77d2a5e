#!/usr/bin/env python3
"""Selector registrations and "//! @sel" tags stay together.

- Every selector registered in a registerMembers() (b.method, b.action, and
  b.property with its setter) has a declaration tagged "//! @sel <selector>".
  Members declared with the macros of runtime/members.h carry their selector
  in the macro and need no tag; a tag on such a member counts as registered.
- Every tagged member function of a class with a selector table (ZT_OBJECT)
  is registered, unless it is static or a factory (class operations are
  called directly), or its class or selector is listed in DIRECT below.

Usage: check_selector_tags.py <src-dir>. Prints each mismatch; exits 1 if any.
"""
import pathlib
import re
import sys

# Operations that C++ calls directly; their tags only name the selector.
DIRECT = {
    # driven by their owners, never by selector
    'AsyncSocket', 'VDConnection', 'VDConnectionRemoteProxy',
    # the keyed archiver calls these
    'encodeWithCoder:', 'initWithCoder:',
    # these take a C++ callback, which no message can carry
    'initWithObservee:keyPath:options:handler:', 'returnedValue:',
    # the connection asks its local object through VDAcceptingObject first
    'acceptsSelector:',
}

REGISTERED = re.compile(r'\bb\.(method|action|property)\(\s*"([^"]+)"\s*(,\s*&\w+::\w+\s*(,\s*&\w+::\w+\s*)?)?\)')
# Declared members (runtime/members.h): the selectors each macro registers.
DECLARED = re.compile(r'^\s*ZT_(ACTION|METHOD|KEY|READONLY_KEY|PROPERTY|PROPERTY_GET|WEAK|TO_MANY|WIRED_TO_MANY)'
                      r'\(([^)]*)\)', re.M)
TAG = re.compile(r'^\s*//!\s*@sel\s+(\S+)')
CLASS = re.compile(r'^(?:class|struct)\s+(?:ZT_EXPORT\s+)?(\w+)\b[^;]*$')


def setter(key):
    return 'set' + key[:1].upper() + key[1:] + ':'


def declared(kind, args):
    a = [x.strip().strip('"') for x in args.split(',')]
    if kind in ('ACTION', 'METHOD'):
        return [a[0]]
    if kind == 'READONLY_KEY':
        return [a[0]]
    if kind == 'KEY':
        return [a[0], setter(a[0])]
    if kind in ('PROPERTY', 'PROPERTY_GET', 'WEAK'):
        return [a[1], setter(a[1])]
    key, big = a[1], a[2]
    names = [key, setter(key), f'insert{big}:atIndexes:', f'remove{big}AtIndexes:',
             f'replace{big}AtIndexes:with{big}:']
    if kind == 'WIRED_TO_MANY':
        wired, wbig = a[3], a[4]
        names += [wired, setter(wired), f'insert{wbig}:atIndexes:', f'remove{wbig}AtIndexes:']
    return names


def scan(root):
    registered, tags, macro = {}, [], set()
    for path in sorted(pathlib.Path(root).rglob('*')):
        if path.suffix not in ('.h', '.cpp'):
            continue
        text = path.read_text(encoding='utf-8', errors='replace')
        for m in REGISTERED.finditer(text):
            if text[text.rfind(chr(10), 0, m.start()) + 1:m.start()].lstrip().startswith('//'):
                continue  # an example in a comment
            where = f'{path}:{text.count(chr(10), 0, m.start()) + 1}'
            registered.setdefault(m.group(2), where)
            if m.group(1) == 'property' and m.group(4):
                registered.setdefault(setter(m.group(2)), where)
        for m in DECLARED.finditer(text):
            macro.update(declared(m.group(1), m.group(2)))
        lines = text.splitlines()
        cls, table = None, False
        for i, line in enumerate(lines):
            if CLASS.match(line):
                cls, table = CLASS.match(line).group(1), False
            elif line.startswith('};'):
                cls, table = None, False
            table = table or 'ZT_OBJECT(' in line
            m = TAG.match(line)
            if not m:
                continue
            following = next((l.strip() for l in lines[i + 1:] if not l.strip().startswith('//')), '')
            direct = following.startswith('static') or cls in DIRECT or m.group(1) in DIRECT
            tags.append((m.group(1), f'{path}:{i + 1}', table and not direct))
    return registered, tags, macro


def main(root):
    registered, tags, macro = scan(root)
    tagged = {name for name, _, _ in tags}
    problems = [f'{where}: "{name}" is registered but no declaration is tagged "//! @sel {name}"'
                for name, where in sorted(registered.items()) if name not in tagged]
    problems += [f'{where}: "//! @sel {name}" tags a member that is not registered'
                 for name, where, member in tags if member and name not in registered and name not in macro]
    for line in problems:
        print(line)
    return 1 if problems else 0


if __name__ == '__main__':
    sys.exit(main(sys.argv[1] if len(sys.argv) > 1 else 'src'))
