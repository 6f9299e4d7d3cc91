"""What the documents say, held against the programs: the operations and the bytes of
docs/protocol.md at a real broker, the first programs of README.md against examples/."""

import pathlib
import re
import sys
import unittest

import zmq

from broker_process import BrokerProcess
from wire_client import RemoteError, WireClient

BROKER_PROGRAM = sys.argv.pop()
ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
PROTOCOL = (ROOT / "docs" / "protocol.md").read_text(encoding="utf-8")
OPERATION = re.compile(r"^\| \d+ \| `(\w+)` \|(.*)\| (.*) \|$", re.MULTILINE)
OPERATIONS_OF_A_BROKER = 26


class Documents(unittest.TestCase):
    def setUp(self):
        self.broker = BrokerProcess(BROKER_PROGRAM)
        self.addCleanup(self.broker.stop)
        context = zmq.Context()
        self.addCleanup(context.destroy, linger=0)
        self.client = WireClient(context, f"tcp://127.0.0.1:{self.broker.port}")
        self.addCleanup(self.client.socket.close)

    def call(self, method, params):
        try:
            return None, self.client.call(method, *params)
        except RemoteError as error:
            return str(error), None

    def test_every_operation_has_the_parameters_of_the_table(self):
        operations = OPERATION.findall(PROTOCOL)
        self.assertEqual(len(operations), OPERATIONS_OF_A_BROKER)
        values = {"string": "x", "int32": 1, "int64": 1, "bool": True}
        results = {"string": str, "int32": int, "bool": bool, "strings": list, "map": dict, "maps": list,
                   "nothing": type(None)}
        for method, parameters, result_text in operations:
            types = re.findall(r": (\w+)", parameters)
            with self.subTest(method=method):
                error, _ = self.call(method, [None] * (len(types) + 1))
                self.assertIn(f"{len(types)} parameters expected", error)
                for index in range(len(types)):
                    params = [values[name] for name in types]
                    params[index] = {}
                    self.assertIn(f"parameter {index + 1} is of the wrong type",
                                  self.call(method, params)[0])
                error, result = self.call(method, [values[name] for name in types])
                if error is None:
                    self.assertIs(type(result), results[result_text.split(",")[0]])

    def test_the_bytes_are_those_of_the_broker(self):
        exchanges = 0
        for block in re.findall(r"^```\n((?:[<>] .*\n)+)```$", PROTOCOL, re.MULTILINE):
            frames = {"<": [], ">": []}
            for line in block.splitlines():
                frames[line[0]].append(bytes.fromhex(line[2:]))
            self.client.send_raw(*frames[">"])
            if frames["<"]:
                self.assertEqual(self.client.socket.recv_multipart(), frames["<"])
            exchanges += 1
        self.assertEqual(exchanges, 3)

    def test_the_first_programs_of_the_readme_are_the_examples(self):
        readme = (ROOT / "README.md").read_text(encoding="utf-8")
        programs = re.findall(r"^```cpp\n(.*?)^```$", readme, re.MULTILINE | re.DOTALL)
        examples = [(ROOT / "examples" / name).read_text(encoding="utf-8")
                    for name in ("publisher.cpp", "subscriber.cpp")]
        self.assertEqual(programs, examples)
        for program in programs:
            self.assertLessEqual(program.count("\n"), 15)


if __name__ == "__main__":
    unittest.main(verbosity=2)
