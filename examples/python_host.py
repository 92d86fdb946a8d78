#!/usr/bin/python3
"""A complete small host in Python: a campaign, clients, a run and a queue.

    PYTHONPATH=build/python /usr/bin/python3 examples/python_host.py [FOLDER]
"""
import datetime
import os
import sys
import tempfile

import quillo


def new_record(table, connection, ids):
    record = quillo.CreateObject(table)
    record.Connection = connection
    record.IDGenerator = ids
    return record


def save(record):
    if not record.SaveData():
        raise RuntimeError(record.ErrorMessage)


def main():
    folder = sys.argv[1] if len(sys.argv) > 1 else tempfile.mkdtemp()
    connection = quillo.OpenConnection("sqlite:" + os.path.join(folder, "python_host.db"))
    quillo.CreateSchema(connection)
    ids = quillo.CreateObject("idgen")

    campaign = new_record("dmmrktcmp", connection, ids)
    campaign.CampaignName = "Welcome"
    campaign.CampaignType = 1  # sequential offset
    save(campaign)
    for interval, template in [(0, "welcome.txt"), (3, "day3.txt")]:
        item = new_record("dmmrktcmpitems", connection, ids)
        item.CampaignRecID = campaign.RecID
        item.Interval = interval
        item.MessageFileName = template
        save(item)

    for email, first in [("ada@example.test", "Ada"), ("grace@example.test", "Grace")]:
        client = new_record("dmclients", connection, ids)
        client.Email = email
        client.First = first
        save(client)
        enrolment = new_record("dmclientsmrktcmp", connection, ids)
        enrolment.Account = client.Account
        enrolment.CampaignRecID = campaign.RecID
        enrolment.EffectiveDate = datetime.datetime(2026, 11, 1)
        save(enrolment)

    queue = quillo.CreateObject("dmmsgqueue")
    queue.MessageQueueFileName = os.path.join(folder, "queue.txt")
    assert queue.OpenQueueWrite()
    processor = quillo.CreateObject("dmCampaignProcessor")
    processor.Connection = connection
    processor.IDGenerator = ids
    processor.CampaignRecID = campaign.RecID
    processor.CurrentDate = datetime.datetime(2026, 11, 5)
    processor.UseMessageQueue = True
    processor.MessageQueue = queue
    quillo.Advise(processor, "StatusChange",
                  lambda message, cnt, total: print(f"  [{cnt}/{total}] {message}"))
    processor.LoadData()
    processor.Process()
    queue.CloseQueue()

    print(f"queued {queue.Count()} messages in {queue.MessageQueueFileName}")
    assert queue.OpenQueueRead()
    while True:
        message = queue.ReadMessage()
        if message is None:
            break
        print(f"  {message.Email} <- {message.MessageFileName} on {message.SendDate}")
    queue.CloseQueue()
    return 0


if __name__ == "__main__":
    sys.exit(main())
