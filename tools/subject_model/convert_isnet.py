#!/usr/bin/env python3
"""Assembles the ISNet segmentation network from the chunks of the npm package
@imgly/background-removal-data and rewrites it in the form OpenCV's dnn reader takes.

The package ships /models/medium as float16 ONNX cut into chunks (dist/resources.json lists them
in order, each named by its SHA-256). OpenCV 4.6 reads the graph once every float16 tensor is
float32 and the Cast nodes are gone (they only move tensors between the two precisions).

    convert_isnet.py PACKAGE_DIR OUTPUT.onnx
"""
import hashlib
import json
import pathlib
import sys

import numpy as np
import onnx
from onnx import numpy_helper, TensorProto

MODEL_KEY = "/models/medium"
OUTPUT = "output"


def assemble(dist):
    """The original model's bytes, its chunks joined in the order the resource list gives."""
    entry = json.loads((dist / "resources.json").read_text())[MODEL_KEY]
    data = bytearray()
    for chunk in entry["chunks"]:
        part = (dist / chunk["hash"]).read_bytes()
        if hashlib.sha256(part).hexdigest() != chunk["hash"]:
            raise SystemExit(f"chunk {chunk['hash']} is damaged")
        data += part
    if len(data) != entry["size"]:
        raise SystemExit(f"assembled {len(data)} bytes, the list says {entry['size']}")
    return bytes(data)


def to_float32(model):
    graph = model.graph
    for init in graph.initializer:
        if init.data_type == TensorProto.FLOAT16:
            init.CopyFrom(numpy_helper.from_array(
                numpy_helper.to_array(init).astype(np.float32), init.name))
    for node in graph.node:
        for attr in node.attribute:
            if attr.type == onnx.AttributeProto.TENSOR and attr.t.data_type == TensorProto.FLOAT16:
                attr.t.CopyFrom(numpy_helper.from_array(
                    numpy_helper.to_array(attr.t).astype(np.float32), attr.t.name))
    # Only the soft mask is kept as an output (the side outputs are the training's). A Cast node
    # becomes a rename: its consumers read its input, except that the tensor a Cast turned into
    # the graph's output takes the output's name.
    keep = [o for o in graph.output if o.name == OUTPUT]
    del graph.output[:]
    graph.output.extend(keep)
    rename = {}
    for node in graph.node:
        if node.op_type == "Cast":
            if node.output[0] == OUTPUT:
                rename[node.input[0]] = OUTPUT
            else:
                rename[node.output[0]] = node.input[0]
    def resolve(name):
        while name in rename:
            name = rename[name]
        return name
    kept = [n for n in graph.node if n.op_type != "Cast"]
    for node in kept:
        for names in (node.input, node.output):
            for i, name in enumerate(names):
                names[i] = resolve(name)
    del graph.node[:]
    graph.node.extend(kept)
    for value in list(graph.input) + list(graph.output) + list(graph.value_info):
        t = value.type.tensor_type
        if t.elem_type == TensorProto.FLOAT16:
            t.elem_type = TensorProto.FLOAT
    return model


def main():
    if len(sys.argv) != 3:
        raise SystemExit(__doc__)
    dist = pathlib.Path(sys.argv[1]) / "dist"
    out = pathlib.Path(sys.argv[2])
    model = to_float32(onnx.load_from_string(assemble(dist)))
    onnx.checker.check_model(model)
    tmp = out.with_name(out.name + ".part")
    tmp.write_bytes(model.SerializeToString())
    tmp.replace(out)


if __name__ == "__main__":
    main()
