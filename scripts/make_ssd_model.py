#!/usr/bin/python3
"""Writes an ONNX detector with the SSD-MobileNet input and output names.

small: a few kilobytes of arithmetic with deterministic weights, for tests. Its outputs depend on
       the input image in a way a test can predict (per-channel means of the scaled input).
full:  a MobileNet-v1 SSD of the real shape (300x300, six feature maps, 1917 anchors, 91 classes)
       with seeded random weights, so that the cost of running it is real.
"""
import argparse
import os

import numpy as np
import onnx
from onnx import TensorProto, helper, numpy_helper

INPUT = "Preprocessor__sub__0"
BOXES = "concat__0"
SCORES = "concat_1__0"
ACT = "FeatureExtractor__MobilenetV1__Conv2d_13_pointwise_2_Conv2d_2_3x3_s2_512__Relu6__0"
AUX = "FeatureExtractor__MobilenetV1__Conv2d_13_pointwise_1_Conv2d_4_1x1_128__Relu6__0"
ANCHORS = 1917
CLASSES = 91


class Graph:
    def __init__(self, seed):
        self.nodes, self.inits, self.n = [], [], 0
        self.rng = np.random.default_rng(seed)

    def name(self, base):
        self.n += 1
        return f"{base}_{self.n}"

    def const(self, array, base="w"):
        n = self.name(base)
        self.inits.append(numpy_helper.from_array(np.asarray(array), n))
        return n

    def op(self, kind, inputs, out=None, **attrs):
        out = out or self.name(kind.lower())
        self.nodes.append(helper.make_node(kind, inputs, [out], **attrs))
        return out

    def relu6(self, x, out=None):
        return self.op("Clip", [x], out, min=0.0, max=6.0)

    def conv(self, x, cin, cout, k, stride=1, group=1, act=True, out=None):
        w = self.rng.normal(0, np.sqrt(2.0 / (k * k * cin / group)), (cout, cin // group, k, k))
        b = np.zeros(cout)
        y = self.op("Conv", [x, self.const(w.astype(np.float32)), self.const(b.astype(np.float32))],
                    None if act else out, kernel_shape=[k, k], strides=[stride, stride],
                    pads=[k // 2] * 4, group=group)
        return self.relu6(y, out) if act else y


def small(g):
    # Pooled 5x5 colour means -> 1x1 conv -> activation; global means -> scores and boxes.
    pooled = g.op("AveragePool", [INPUT], kernel_shape=[60, 60], strides=[60, 60])  # 1x3x5x5
    wact = np.zeros((8, 3, 1, 1), np.float32)
    for c in range(8):
        wact[c, c % 3, 0, 0] = 1.0 + c // 3
    g.relu6(g.op("Conv", [pooled, g.const(wact), g.const(np.full(8, 1.0, np.float32))],
                 kernel_shape=[1, 1]), ACT)
    g.relu6(g.op("AveragePool", [pooled], kernel_shape=[2, 2], strides=[2, 2]), AUX)  # 1x3x2x2
    means = g.op("Flatten", [g.op("GlobalAveragePool", [INPUT])], axis=1)  # 1x3
    # Scores: low everywhere, except anchor 500 of "chair" (62) and anchor 900 of "tv" (72), whose
    # logits grow with the red channel mean.
    ws = np.zeros((3, CLASSES * ANCHORS), np.float32)
    bs = np.full(CLASSES * ANCHORS, -6.0, np.float32)
    bs[62 * ANCHORS + 500] = 2.0
    ws[0, 62 * ANCHORS + 500] = 1.0
    bs[72 * ANCHORS + 900] = 1.0
    ws[0, 72 * ANCHORS + 900] = -1.0
    logits = g.op("Add", [g.op("MatMul", [means, g.const(ws)]), g.const(bs)])
    scores = g.op("Sigmoid", [logits])
    g.op("Reshape", [scores, g.const(np.array([1, CLASSES, ANCHORS], np.int64), "shape")], SCORES)
    # Boxes: a fixed encoding per anchor (th = tw = 0.5 ln 2 * 5 scales by sqrt 2), plus 0 * means.
    bb = np.zeros(4 * ANCHORS, np.float32)
    bb[0 * ANCHORS + 500] = 1.0  # ty: centre down by a tenth of the anchor height
    bb[2 * ANCHORS:] = np.float32(2.5 * np.log(2.0))
    boxes = g.op("Add", [g.op("MatMul", [means, g.const(np.zeros((3, 4 * ANCHORS), np.float32))]),
                         g.const(bb)])
    g.op("Reshape", [boxes, g.const(np.array([1, 4, ANCHORS], np.int64), "shape")], BOXES)
    return [(ACT, [1, 8, 5, 5]), (AUX, [1, 3, 2, 2])]


def full(g):
    x = g.conv(INPUT, 3, 32, 3, 2)
    cfg = [(64, 1), (128, 2), (128, 1), (256, 2), (256, 1), (512, 2)] + [(512, 1)] * 5 + [(1024, 2), (1024, 1)]
    cin, maps = 32, []
    for i, (cout, s) in enumerate(cfg):
        x = g.conv(x, cin, cin, 3, s, group=cin)
        x = g.conv(x, cin, cout, 1)
        cin = cout
        if i == 10:
            maps.append((x, 512, 19))
    maps.append((x, 1024, 10))
    for k, (mid, cout, size) in enumerate([(256, 512, 5), (128, 256, 3), (128, 256, 2), (64, 128, 1)]):
        y = g.conv(x, cin, mid, 1, out=AUX if k == 0 else None)
        x = g.conv(y, mid, cout, 3, 2, out=ACT if k == 0 else None)
        cin = cout
        maps.append((x, cout, size))
    boxes, scores = [], []
    for m, (fm, ch, size) in enumerate(maps):
        a = 3 if m == 0 else 6
        for outs, dest in ((4, boxes), (CLASSES, scores)):
            if outs == 4:
                p = g.conv(fm, ch, a * outs, 1, act=False)
            else:
                # Like a trained detector: nearly every score low, a few classes firing on one
                # map (62 chair, 63 couch, 72 tv on the 5x5 map).
                w = g.rng.normal(0, 0.001, (a * outs, ch, 1, 1)).astype(np.float32)
                b = np.full(a * outs, -6.0, np.float32)
                if m == 2:
                    for c in (62, 63, 72):
                        b[c::outs] = 0.5
                p = g.op("Conv", [fm, g.const(w), g.const(b)], kernel_shape=[1, 1])
            p = g.op("Transpose", [p], perm=[0, 2, 3, 1])
            dest.append(g.op("Reshape", [p, g.const(np.array([1, size * size * a, outs], np.int64), "shape")]))
    for parts, name, outs in ((boxes, BOXES, 4), (scores, SCORES, CLASSES)):
        cat = g.op("Concat", parts, axis=1)
        if name == SCORES:
            cat = g.op("Sigmoid", [cat])
        g.op("Transpose", [cat], name, perm=[0, 2, 1])
    return [(ACT, [1, 512, 5, 5]), (AUX, [1, 256, 10, 10])]


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--kind", choices=["small", "full"], default="small")
    ap.add_argument("--seed", type=int, default=1)
    ap.add_argument("--drop-output", default="", help="leave this output out (for refusal tests)")
    ap.add_argument("out")
    args = ap.parse_args()
    g = Graph(args.seed)
    extra = small(g) if args.kind == "small" else full(g)
    outputs = [(BOXES, [1, 4, ANCHORS]), (SCORES, [1, CLASSES, ANCHORS])] + extra
    outputs = [o for o in outputs if o[0] != args.drop_output]
    graph = helper.make_graph(
        g.nodes, "ssd", [helper.make_tensor_value_info(INPUT, TensorProto.FLOAT, [1, 3, 300, 300])],
        [helper.make_tensor_value_info(n, TensorProto.FLOAT, s) for n, s in outputs], g.inits)
    model = helper.make_model(graph, opset_imports=[helper.make_opsetid("", 10)])
    model.ir_version = 5
    onnx.checker.check_model(model)
    tmp = f"{args.out}.{os.getpid()}.tmp"
    onnx.save(model, tmp)
    os.replace(tmp, args.out)  # atomic: concurrent test processes never see half a file


if __name__ == "__main__":
    main()
