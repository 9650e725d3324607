#!/usr/bin/env python3
"""Reads the installed public headers with clang and compares what they declare with what the
installed library exports: every function, member function and global that the headers declare
but do not define (so only the library can provide it) must be exported, and every exported name
must be declared. Templates the headers declare without a definition are taken in the
instantiations that instantiations.h lists, and a template missing from that list is an error.

    public_names.py --include DIR --library LIB --clang CLANG --instantiations FILE
"""

import argparse
import json
import os
import re
import subprocess
import sys

FUNCTION_KINDS = {"FunctionDecl", "CXXMethodDecl", "CXXConstructorDecl", "CXXDestructorDecl",
                  "CXXConversionDecl"}
RECORD_KINDS = {"CXXRecordDecl", "ClassTemplateSpecializationDecl"}


def clang_ast(clang, include_dir, headers, instantiations):
    source = "".join('#include "%s"\n' % h for h in headers)
    source += '#include "%s"\n' % instantiations
    result = subprocess.run([clang, "-x", "c++", "-std=c++17", "-fsyntax-only", "-I", include_dir,
                             "-Xclang", "-ast-dump=json", "-"], input=source.encode(),
                            stdout=subprocess.PIPE, check=True)
    return json.loads(result.stdout)


def annotate_files(node, state):
    """Gives every node a "_file": clang names a location's file only where it changes."""

    def visit_location(location):
        if isinstance(location, dict):
            if "file" in location:
                state["file"] = location["file"]
            for key in ("spellingLoc", "expansionLoc", "begin", "end"):
                visit_location(location.get(key))

    visit_location(node.get("loc"))
    node["_file"] = state["file"]
    visit_location(node.get("range"))
    for child in node.get("inner", []):
        annotate_files(child, state)


def has_body(node):
    return any(c.get("kind") == "CompoundStmt" for c in node.get("inner", []))


class Headers:
    def __init__(self, root, include_dir):
        self.include_dir = os.path.realpath(include_dir)
        self.by_id = {}
        self.defined = set()  # ids of function declarations that have a definition in a header
        self.entries = []  # (kind, qualified name, mangled name)
        self.names = set()  # every qualified name the headers declare, template arguments dropped
        self.missing_instantiations = []
        self.record_paths = set()  # qualified names of the classes, to tell members apart
        self.index(root)
        self.mark_definitions(root)
        self.walk(root, [])

    def public_header(self, node):
        path = node.get("_file") or ""
        return os.path.realpath(path).startswith(self.include_dir + os.sep)

    def index(self, node):
        if "id" in node:
            self.by_id.setdefault(node["id"], node)
            if node.get("kind") in RECORD_KINDS and "inner" in node:
                self.by_id[node["id"]] = node
        for child in node.get("inner", []):
            self.index(child)

    def mark_definitions(self, node):
        if node.get("kind") in FUNCTION_KINDS and (
                has_body(node) or node.get("inline") or node.get("explicitlyDefaulted")
                or node.get("explicitlyDeleted") or node.get("pure")):
            current = node
            while current is not None and current["id"] not in self.defined:
                self.defined.add(current["id"])
                current = self.by_id.get(current.get("previousDecl"))
        for child in node.get("inner", []):
            self.mark_definitions(child)

    def walk(self, node, scope):
        kind = node.get("kind")
        if kind in ("TranslationUnitDecl", "LinkageSpecDecl"):
            for child in node.get("inner", []):
                self.walk(child, scope)
            return
        if not self.public_header(node) or node.get("isImplicit"):
            return
        name = node.get("name", "")
        if kind == "NamespaceDecl":
            for child in node.get("inner", []):
                self.walk(child, scope + [name])
        elif kind in RECORD_KINDS and node.get("completeDefinition") and name:
            self.record(node, scope + [name])
        elif kind in FUNCTION_KINDS:
            self.names.add("::".join(scope + [name]))
            self.function(node, scope)
        elif kind == "VarDecl":
            self.names.add("::".join(scope + [name]))
            member = "::".join(scope) in self.record_paths
            if (node.get("storageClass") == "extern" or member) and not node.get("constexpr") \
                    and not node.get("inline") and not node.get("init"):
                self.entries.append(("variable", "::".join(scope + [name]),
                                     node.get("mangledName")))
        elif kind in ("FunctionTemplateDecl", "ClassTemplateDecl"):
            self.template(node, scope)

    def record(self, node, path):
        self.names.add("::".join(path))
        self.record_paths.add("::".join(path))
        # Implicit destructors of polymorphic classes are emitted with the vtable.
        self.names.add("::".join(path + ["~" + path[-1]]))
        for child in node.get("inner", []):
            self.walk(child, path)

    def function(self, node, scope):
        member = "::".join(scope) in self.record_paths
        if node["id"] in self.defined or node.get("storageClass") == "static" and not member:
            return
        # Constructors and destructors may be exported under their base-object symbol alone.
        structor = node["kind"] in ("CXXConstructorDecl", "CXXDestructorDecl")
        self.entries.append(("structor" if structor else "function",
                             "::".join(scope + [node["name"]]), node.get("mangledName")))

    def template(self, node, scope):
        inner = node.get("inner", [])
        self.names.add("::".join(scope + [node["name"]]))
        patterns = [c for c in inner if c.get("kind") in FUNCTION_KINDS | {"CXXRecordDecl"}
                    and "mangledName" not in c]
        if not patterns:
            return
        pattern = patterns[0]
        if node["kind"] == "FunctionTemplateDecl":
            if pattern["id"] in self.defined:
                return
            specializations = [c for c in inner if c.get("kind") in FUNCTION_KINDS
                               and "mangledName" in c]
            if not specializations:
                self.missing_instantiations.append("::".join(scope + [node["name"]]))
            for specialization in specializations:
                self.function(specialization, scope)
            return
        # A class template: its members declared without a definition come from the library.
        declared = {}
        for member in pattern.get("inner", []):
            if member.get("kind") in FUNCTION_KINDS | RECORD_KINDS | {"FunctionTemplateDecl",
                                                                     "VarDecl"}:
                name = member.get("name", "").split("<")[0]
                self.names.add("::".join(scope + [node["name"], name]))
            if member.get("kind") in FUNCTION_KINDS:
                declared.setdefault(member["name"].split("<")[0], []).append(member)
        undefined = [n for n, members in declared.items()
                     if any(m["id"] not in self.defined for m in members)]
        if not undefined:
            return
        specializations = [self.by_id.get(c["id"], c) for c in inner
                           if c.get("kind") == "ClassTemplateSpecializationDecl"]
        if not specializations:
            self.missing_instantiations.append("::".join(scope + [node["name"]]))
        for specialization in specializations:
            arguments = [a.get("type", {}).get("qualType", "?")
                         for a in specialization.get("inner", [])
                         if a.get("kind") == "TemplateArgument"]
            path = scope + ["%s<%s>" % (node["name"], ", ".join(arguments))]
            for member in specialization.get("inner", []):
                if member.get("kind") in FUNCTION_KINDS and not member.get("isImplicit") \
                        and all(m["id"] not in self.defined
                                for m in declared.get(member["name"].split("<")[0], [])):
                    self.function(member, path)


def strip_templates(text):
    """Drops template argument lists, keeping operator< and friends whole."""
    out, depth = [], 0
    i = 0
    while i < len(text):
        if text.startswith("operator", i) and depth == 0:
            match = re.match(r"operator\s*(<<=|>>=|<<|>>|<=>|<=|>=|<|>|\(\)|\[\]|[^\s(<]+)",
                             text[i:])
            out.append(match.group(0))
            i += len(match.group(0))
            continue
        c = text[i]
        if c == "<":
            depth += 1
        elif c == ">" and depth > 0:
            depth -= 1
        elif depth == 0:
            out.append(c)
        i += 1
    return "".join(out)


def exported_name(demangled):
    """The qualified name of an exported symbol: "LFile::IsMatch" for
    "bool LFile::IsMatch<char>(char const*, char const*)"."""
    for prefix in ("vtable for ", "typeinfo for ", "typeinfo name for "):
        if demangled.startswith(prefix):
            return strip_templates(demangled[len(prefix):]).strip()
    text = strip_templates(demangled)
    depth = 0
    for i, c in enumerate(text):
        if c == "(" and depth == 0 and not text[:i].endswith("operator"):
            text = text[:i]
            break
        depth += c == "("
    return text.split(" ")[-1]


def main():
    parser = argparse.ArgumentParser()
    for option in ("include", "library", "clang", "instantiations"):
        parser.add_argument("--" + option, required=True)
    args = parser.parse_args()

    headers = sorted(os.path.relpath(os.path.join(d, f), args.include)
                     for d, _, files in os.walk(os.path.join(args.include, "llib"))
                     for f in files if f.endswith(".h"))
    root = clang_ast(args.clang, args.include, headers, os.path.abspath(args.instantiations))
    annotate_files(root, {"file": None})
    found = Headers(root, args.include)
    failed = False
    for name in found.missing_instantiations:
        print("error: %s is a template the headers declare without a definition, and %s lists "
              "no instantiation of it" % (name, os.path.basename(args.instantiations)))
        failed = True

    symbols = subprocess.run(["nm", "-D", "--defined-only", args.library], stdout=subprocess.PIPE,
                             check=True, text=True).stdout.split("\n")
    kinds = {line.split()[2]: line.split()[1] for line in symbols if len(line.split()) == 3}
    symbols = sorted(kinds)
    demangled = subprocess.run(["c++filt"], input="\n".join(symbols), stdout=subprocess.PIPE,
                               check=True, text=True).stdout.split("\n")
    exported = set(symbols)
    for kind, name, mangled in found.entries:
        if mangled not in exported and not (kind == "structor" and (
                mangled.replace("C1E", "C2E", 1) in exported or
                mangled.replace("D1E", "D2E", 1) in exported)):
            print("error: %s (%s) is declared in a public header but not exported" % (name,
                                                                                      mangled))
            failed = True
    for symbol, text in zip(symbols, demangled):
        name = exported_name(text)
        # The capture layer's classes and functions are exported for hosts of its C++ interface,
        # though their headers are not installed; its data stays inside.
        if re.match(r"I?Tavix", name) and (kinds[symbol] in "TWi" or name != text):
            continue
        if name not in found.names:
            print("error: %s (%s) is exported but no public header declares it" % (text, symbol))
            failed = True

    print("%d declared names, %d exported symbols" % (len(found.entries), len(symbols)))
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
