# Python's logging reaches the host's log: sarvode writes each record on
# standard error with its level name, in the order the records were logged.
import logging

log = logging.getLogger("demo")
print("handlers on the root logger:", [type(h).__name__ for h in logging.getLogger().handlers], flush=True)

log.info("starting")
log.debug("debug records are dropped")
log.warning("%d of %d checks failed", 1, 3)
logging.log(25, "a level of our own")
try:
    1 / 0
except ZeroDivisionError:
    log.exception("a caught error, with its traceback")
log.info("done")
