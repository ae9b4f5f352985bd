# Peer of the encoding benchmark: orjson.dumps on the dataset's documents.
# Arguments: dataset path, output path. Writes its output once, prints "ready", then times
# one dumps per input line and prints the nanoseconds it took.
import sys
import time

try:
    import orjson
except ImportError as error:
    print(f"orjson cannot be imported by {sys.executable} ({error})", flush=True)
    sys.exit(0)

dataset, output = sys.argv[1], sys.argv[2]
with open(dataset, "rb") as file:
    document = orjson.loads(file.read())
with open(output, "wb") as file:
    file.write(orjson.dumps(document))
print("ready", flush=True)

for _ in sys.stdin:
    start = time.perf_counter_ns()
    text = orjson.dumps(document)
    elapsed = time.perf_counter_ns() - start
    del text
    print(elapsed, flush=True)
