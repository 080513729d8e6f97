"""The scenarios, in the order of the table."""

from scenarios import loading  # noqa: F401
from scenarios import calls  # noqa: F401
from scenarios import features  # noqa: F401
from scenarios import endings  # noqa: F401
from scenarios import twins  # noqa: F401
from scenarios import media_changes  # noqa: F401
from scenarios import origination  # noqa: F401
from scenarios import other_media  # noqa: F401
from scenarios import crowds  # noqa: F401
from scenarios import partners  # noqa: F401
from scenarios import beside  # noqa: F401
from scenarios import receiver  # noqa: F401
from scenarios import sip  # noqa: F401
from scenarios import dialplan_samples  # noqa: F401
from scenarios import lifecycle  # noqa: F401
from scenarios import stopping  # noqa: F401
