# Copyright: (c) 2026, The corv-agent authors
# MIT License (see https://opensource.org/licenses/MIT)

from ansible_collections.corvane.server.plugins.plugin_utils.secret import SecretKeepingAction


class ActionModule(SecretKeepingAction):
    SECRET = "repository_key"
