#!/usr/bin/python3
"""Checks what was exchanged between the SDK and the sandbox against docs/openapi.yaml.

usage: validate.py OPENAPI FOLDER    every *.jsonl below FOLDER, as the sandbox writes them (sandbox/Exchanges.h)

A request that was accepted and an answer that was not planned by a test must be as the contract says, and may hold no
key that it does not name. All paths of the contract must have been exchanged. The folder is removed.
"""
import copy
import json
import pathlib
import re
import shutil
import sys
import urllib.parse

import jsonschema
import yaml


def strict(schema):
    """The same schema with every object closed: what it does not name fails."""
    if isinstance(schema, list):
        return [strict(one) for one in schema]
    if not isinstance(schema, dict):
        return schema
    closed = {key: strict(value) for key, value in schema.items() if key != "example"}
    if "properties" in schema and isinstance(schema["properties"], dict) and schema.get("type") == "object":
        closed["additionalProperties"] = False
    return closed


class Contract:
    def __init__(self, file):
        self.document = yaml.safe_load(pathlib.Path(file).read_text())
        self.closed = {"components": strict(self.document["components"])}
        self.paths = self.document["paths"]
        for schema in self.document["components"]["schemas"].values():
            jsonschema.Draft202012Validator.check_schema(schema)
            if "example" in schema:
                self.check(schema, schema["example"])

    def check(self, schema, value):
        whole = copy.copy(self.closed)
        whole.update(strict(schema))
        for error in jsonschema.Draft202012Validator(whole).iter_errors(value):
            where = "/".join(str(step) for step in error.absolute_path)
            raise ValueError(f"at /{where}: {error.message[:300]}")

    def resolve(self, node):
        while "$ref" in node:
            target = self.document
            for step in node["$ref"].removeprefix("#/").split("/"):
                target = target[step]
            node = target
        return node

    def request(self, operation, exchange, query):
        wanted = [list(one)[0] for one in operation.get("security", self.document["security"])][0]
        if exchange["credentials"] != wanted:
            raise ValueError(f"credentials of the {exchange['credentials']} instead of the {wanted}")
        parameters = {one["name"]: one for one in operation.get("parameters", [])}
        if set(query) != set(parameters):
            raise ValueError(f"query {sorted(query)} instead of {sorted(parameters)}")
        for name, values in query.items():
            schema = parameters[name]["schema"]
            self.check(schema, int(values[0]) if schema["type"] == "integer" else values[0])
        body = operation.get("requestBody")
        if body is None:
            if exchange["body"]:
                raise ValueError("a body")
            return
        if exchange["type"] not in body["content"]:
            raise ValueError(f"content type {exchange['type']}")
        if exchange["type"] == "application/json":
            self.check(body["content"][exchange["type"]]["schema"], json.loads(exchange["body"]))

    def answer(self, operation, exchange):
        answers = operation["responses"]
        answer = self.resolve(answers.get(str(exchange["status"]), answers["default"]))
        self.check(answer["content"]["application/json"]["schema"], json.loads(exchange["answer"]))


def main(openapi, folder):
    contract = Contract(openapi)
    seen, wrong, count = {}, [], 0
    for file in sorted(pathlib.Path(folder).glob("*.jsonl")):
        for line in file.read_text().splitlines():
            exchange = json.loads(line)
            target = urllib.parse.urlsplit(exchange["target"])
            path = "/" + (re.match(r"/api/v1/[^/]*/(.*)", target.path) or [None, "?"])[1]
            operation = contract.paths.get(path, {}).get(exchange["method"].lower())
            try:
                if operation is None:
                    raise ValueError("no such path and method in the contract")
                if exchange["status"] == 200 or exchange["planned"]:
                    contract.request(operation, exchange, urllib.parse.parse_qs(target.query))
                if not exchange["planned"]:
                    contract.answer(operation, exchange)
                    seen[path] = seen.get(path, 0) + (exchange["status"] == 200)
                count += 1
            except ValueError as error:
                wrong.append(f"{file.name}: {exchange['method']} {path} {exchange['status']}: {error}")
    missing = [path for path in contract.paths if not seen.get(path)]
    for line in wrong[:20]:
        print(line)
    if missing:
        print("never exchanged:", ", ".join(missing))
    print(f"{count} exchanges are as the contract says, {len(wrong)} are not")
    shutil.rmtree(folder)
    return 1 if wrong or missing or not count else 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
