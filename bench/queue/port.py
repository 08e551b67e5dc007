"""The twin of port.plm, on the queue of the standard library."""

import queue
import sys
import time


def main():
    rounds = int(sys.argv[1])
    port = queue.Queue()
    message = {}
    start = time.perf_counter()
    for _ in range(rounds):
        port.put(message)
        port.get()
    print((time.perf_counter() - start) * 1000)


main()
